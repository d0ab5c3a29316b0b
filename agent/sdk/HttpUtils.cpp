#include "sdk/HttpUtils.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <exception>
#include <memory>

#include <strings.h>
#include <sys/socket.h>

#include <curl/curl.h>

#include "agent/sdk/MessageDigest.h"
#include "agent/sdk/ReplacingFile.h"
#include "sdk/FileUtils.h"

namespace SDK {

namespace {

constexpr int STATUS_OK = 200;

// How long a silent server keeps a transfer from seeing that it is to end.
constexpr int LOOK_INTERVAL_MS = 100;

std::atomic<bool> downloadsStopped{false};

using CurlUrl = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;
using CurlMulti = std::unique_ptr<CURLM, decltype(&curl_multi_cleanup)>;
using CurlHandle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using CurlText = std::unique_ptr<char, decltype(&curl_free)>;

// The body of one download on its way to the destination.
class Body {
public:
    explicit Body(const std::string& destination) : mFile(destination) {}

    bool Open() { return mFile.Open() == 0 && mDigest.Start(MessageDigest::SHA256); }

    // 0 or a result of Download.
    int Append(const char* data, std::size_t length) {
        mBytes += static_cast<long long>(length);
        if (mBytes > HttpUtils::DOWNLOAD_MAX_BYTES) {
            return HttpUtils::DOWNLOAD_TOO_LARGE;
        }
        const bool taken = mFile.Write(data, length) == 0 && mDigest.Update(data, length);
        return taken ? 0 : HttpUtils::DOWNLOAD_LOCAL;
    }

    // Replaces the destination when the body is the expected one.
    int Commit(const std::string& sha256) {
        const std::string digest = mDigest.Finish();
        if (digest.empty()) {
            return HttpUtils::DOWNLOAD_LOCAL;
        }
        if (strcasecmp(digest.c_str(), sha256.c_str()) != 0) {
            return HttpUtils::DOWNLOAD_DIGEST_MISMATCH;
        }
        return mFile.Commit() == 0 ? STATUS_OK : HttpUtils::DOWNLOAD_LOCAL;
    }

private:
    ReplacingFile mFile;
    MessageDigest mDigest;
    long long mBytes = 0;
};

// What the write callback needs, and why it ended the transfer: 0 while it did not.
struct Transfer {
    CURL* curl;
    Body* body;
    int stopped;
};

std::size_t TakeBody(char* data, std::size_t unit, std::size_t count, void* context) {
    auto* transfer = static_cast<Transfer*>(context);
    long status = 0;
    curl_easy_getinfo(transfer->curl, CURLINFO_RESPONSE_CODE, &status);
    // The page that explains a refusal is not the file that was asked for.
    transfer->stopped = status == STATUS_OK ? transfer->body->Append(data, unit * count) : static_cast<int>(status);
    return transfer->stopped == 0 ? unit * count : 0;
}

curl_socket_t OpenSocket(void* /*context*/, curlsocktype /*purpose*/, curl_sockaddr* address) {
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

void Configure(CURL* curl, const std::string& url, const std::string& proxy, const std::string& caFile) {
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, HttpUtils::DOWNLOAD_MAX_REDIRECTS);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, HttpUtils::DOWNLOAD_CONNECT_TIMEOUT_MS);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, HttpUtils::DOWNLOAD_TOTAL_TIMEOUT_MS);
    curl_easy_setopt(curl, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(HttpUtils::DOWNLOAD_MAX_BYTES));
    // Signals and their handlers belong to the process, not to one of its threads.
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    // A name that is still being looked up is not waited for.
    curl_easy_setopt(curl, CURLOPT_QUICK_EXIT, 1L);
    curl_easy_setopt(curl, CURLOPT_OPENSOCKETFUNCTION, &OpenSocket);
    // Set even when empty: unset options would let the environment choose.
    curl_easy_setopt(curl, CURLOPT_PROXY, proxy.c_str());
    curl_easy_setopt(curl, CURLOPT_NOPROXY, "");
    if (!caFile.empty()) {
        curl_easy_setopt(curl, CURLOPT_CAINFO, caFile.c_str());
    }
}

// The result of a transfer that its write callback did not end.
int ToResult(CURL* curl, CURLcode code) {
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    switch (code) {
    case CURLE_OK:
    case CURLE_TOO_MANY_REDIRECTS:
        return static_cast<int>(status);
    case CURLE_FILESIZE_EXCEEDED:
        return status == STATUS_OK ? HttpUtils::DOWNLOAD_TOO_LARGE : static_cast<int>(status);
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
        // The URL that was asked for is a good one: with a status it is a redirect's, without one it is
        // the answer that is not in the protocol.
        return status == 0 ? HttpUtils::DOWNLOAD_TRANSPORT : HttpUtils::DOWNLOAD_BAD_URL;
    default:
        return HttpUtils::DOWNLOAD_TRANSPORT;
    }
}

// Does what curl_easy_perform does, but can be stopped.
CURLcode Perform(CURL* curl) {
    const CurlMulti multi(curl_multi_init(), &curl_multi_cleanup);
    if (!multi || curl_multi_add_handle(multi.get(), curl) != CURLM_OK) {
        return CURLE_OUT_OF_MEMORY;
    }
    int running = 1;
    while (running > 0 && !downloadsStopped.load() && curl_multi_perform(multi.get(), &running) == CURLM_OK) {
        if (running > 0) {
            curl_multi_poll(multi.get(), nullptr, 0, LOOK_INTERVAL_MS, nullptr);
        }
    }
    int left = 0;
    const CURLMsg* end = curl_multi_info_read(multi.get(), &left);
    const CURLcode code = end == nullptr ? CURLE_ABORTED_BY_CALLBACK : end->data.result;
    curl_multi_remove_handle(multi.get(), curl);
    return code;
}

// STATUS_OK when the body is complete.
int FetchFromServer(const std::string& url, const std::string& proxy, const std::string& caFile, Body& body) {
    const CurlHandle curl(curl_easy_init(), &curl_easy_cleanup);
    if (!curl) {
        return HttpUtils::DOWNLOAD_LOCAL;
    }
    Configure(curl.get(), url, proxy, caFile);
    Transfer transfer{curl.get(), &body, 0};
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, &TakeBody);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &transfer);
    const CURLcode code = Perform(curl.get());
    return transfer.stopped != 0 ? transfer.stopped : ToResult(curl.get(), code);
}

// The file that a file URL names. Decoded here, because the URL interface decodes no control characters,
// which file names may hold. False when it cannot be one's name.
bool DecodePath(CURLU* url, std::string& path) {
    char* text = nullptr;
    if (curl_url_get(url, CURLUPART_PATH, &text, 0) != CURLUE_OK) {
        return false;
    }
    const CurlText encoded(text, &curl_free);
    int length = 0;
    const CurlText decoded(curl_easy_unescape(nullptr, encoded.get(), 0, &length), &curl_free);
    if (!decoded) {
        return false;
    }
    path.assign(decoded.get(), static_cast<std::size_t>(length));
    return path.find('\0') == std::string::npos;
}

// Read here and not through curl, which would wait without end for a FIFO's writer.
int FetchFromFile(CURLU* url, Body& body) {
    std::string path;
    if (!DecodePath(url, path)) {
        return HttpUtils::DOWNLOAD_BAD_URL;
    }
    std::string content;
    const int result = FileUtils::ReadFile(path, content, HttpUtils::DOWNLOAD_MAX_BYTES);
    if (result == EFBIG) {
        return HttpUtils::DOWNLOAD_TOO_LARGE;
    }
    if (result != 0) {
        return HttpUtils::DOWNLOAD_TRANSPORT;
    }
    const int taken = body.Append(content.data(), content.size());
    return taken == 0 ? STATUS_OK : taken;
}

// The URL's scheme in lower case; empty when the text is no URL that can be fetched.
std::string SchemeOf(CURLU* parsed, const std::string& url) {
    char* text = nullptr;
    if (curl_url_set(parsed, CURLUPART_URL, url.c_str(), 0) != CURLUE_OK ||
        curl_url_get(parsed, CURLUPART_SCHEME, &text, 0) != CURLUE_OK) {
        return "";
    }
    const CurlText scheme(text, &curl_free);
    return scheme.get();
}

int Fetch(const std::string& url, const std::string& sha256, const std::string& destination, const std::string& proxy,
          const std::string& caFile) {
    const CurlUrl parsed(curl_url(), &curl_url_cleanup);
    if (!parsed) {
        return HttpUtils::DOWNLOAD_LOCAL;
    }
    const std::string scheme = SchemeOf(parsed.get(), url);
    if (scheme != "http" && scheme != "https" && scheme != "file") {
        return HttpUtils::DOWNLOAD_BAD_URL;
    }
    Body body(destination);
    if (!body.Open()) {
        return HttpUtils::DOWNLOAD_LOCAL;
    }
    const int result = scheme == "file" ? FetchFromFile(parsed.get(), body) : FetchFromServer(url, proxy, caFile, body);
    return result == STATUS_OK ? body.Commit(sha256) : result;
}

} // namespace

HttpUtils* HttpUtils::GetInstance() {
    static HttpUtils instance;
    return &instance;
}

int HttpUtils::Download(const std::string& url, const std::string& sha256, const std::string& destination,
                        const std::string& proxy, const std::string& caFile) {
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (initialised != CURLE_OK) {
        return DOWNLOAD_LOCAL;
    }
    try {
        return Fetch(url, sha256, destination, proxy, caFile);
    } catch (const std::exception&) {
        return DOWNLOAD_LOCAL;
    }
}

void HttpUtils::StopDownloads() {
    downloadsStopped.store(true);
}

} // namespace SDK
