// A target needs a source to have precompiled headers.

int main() {
    return 0;
}
