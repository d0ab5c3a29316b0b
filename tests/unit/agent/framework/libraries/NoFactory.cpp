extern "C" int NotAFactory() {
    return 0;
}
