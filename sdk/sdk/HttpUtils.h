#pragma once

#include <string>

namespace SDK {

namespace Http {

inline const std::string METHOD_GET = "GET";
inline const std::string METHOD_POST = "POST";
inline const std::string METHOD_PUT = "PUT";
inline const std::string METHOD_DELETE = "DELETE";

inline const std::string HEADER_CONTENT_TYPE = "Content-Type";
inline const std::string HEADER_ACCEPT_TYPE = "Accept-Type";
inline const std::string HEADER_AUTH_TOKEN = "X-Auth-Token";
inline const std::string HEADER_AGENT_ID = "agent_id";

inline const std::string CONTENT_TYPE_JSON = "application/json; charset=utf-8";
inline const std::string CONTENT_TYPE_BINARY = "binary/octet-stream";

inline const std::string SCHEME_HTTP = "http://";
inline const std::string SCHEME_HTTPS = "https://";

} // namespace Http

// Fetching files. Thread-safe; every call uses a connection of its own.
class HttpUtils {
public:
    // Results of Download that are no HTTP status.
    static constexpr int DOWNLOAD_DIGEST_MISMATCH = -1; // the body is not the expected one
    static constexpr int DOWNLOAD_BAD_URL = -2;   // neither http, https nor file, or redirected to such a URL or a file
    static constexpr int DOWNLOAD_TRANSPORT = -3; // no connection, time-out, body cut short, StopDownloads
    static constexpr int DOWNLOAD_TOO_LARGE = -4; // more than DOWNLOAD_MAX_BYTES
    static constexpr int DOWNLOAD_LOCAL = -5;     // the destination cannot be written

    static constexpr long long DOWNLOAD_MAX_BYTES = 10485760;
    static constexpr long DOWNLOAD_CONNECT_TIMEOUT_MS = 5000;
    static constexpr long DOWNLOAD_TOTAL_TIMEOUT_MS = 60000;
    static constexpr long DOWNLOAD_MAX_REDIRECTS = 5;

    static HttpUtils* GetInstance();

    // Fetches `url` (http, https or file) into the file `destination`. The body goes to a temporary
    // file in the destination's folder; only when it is complete and its SHA-256 equals `sha256`
    // (hexadecimal, either case) is the destination replaced, in one step, mode 0600. On any failure
    // the destination stays as it was and nothing is left behind.
    //
    // `proxy` is a proxy's URL and `caFile` a file of PEM certificates to trust for https; both may
    // be empty: no proxy (the environment's proxy settings are not used), the system's certificates.
    //
    // Returns 200 on success (for file URLs too), else the server's status or one of the values
    // above. Blocks for at most DOWNLOAD_TOTAL_TIMEOUT_MS.
    int Download(const std::string& url, const std::string& sha256, const std::string& destination,
                 const std::string& proxy, const std::string& caFile);

    // For the end of the process: downloads from servers that are under way end with
    // DOWNLOAD_TRANSPORT within moments, and so do later ones.
    void StopDownloads();

private:
    HttpUtils() = default;
};

} // namespace SDK
