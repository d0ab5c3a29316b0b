#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <httplib.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include "sdk/FileUtils.h"
#include "sdk/HttpUtils.h"
#include "support/TempRoot.h"
#include "support/WaitFor.h"

using SDK::FileUtils;
using SDK::HttpUtils;
using TestSupport::TempDir;

namespace {

constexpr const char* CONTENT = "the list of the day";

// An HTTP server on loopback that answers on a thread of its own.
class WebServer {
public:
    explicit WebServer(std::unique_ptr<httplib::Server> server = std::make_unique<httplib::Server>(),
                       const char* scheme = "http")
        : mServer(std::move(server)), mScheme(scheme), mPort(mServer->bind_to_any_port("127.0.0.1")),
          mThread([this] { mServer->listen_after_bind(); }) {}
    ~WebServer() {
        mServer->stop();
        mThread.join();
    }
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // Answers GET of `path` with `content`; returns the URL. To be called before the first request.
    std::string Serve(const std::string& path, const std::string& content) {
        mServer->Get(path, [content](const httplib::Request&, httplib::Response& response) {
            response.set_content(content, "application/octet-stream");
        });
        return Url(path);
    }

    std::string ServeStatus(const std::string& path, int status, const std::string& content) {
        mServer->Get(path, [status, content](const httplib::Request&, httplib::Response& response) {
            response.status = status;
            response.set_content(content, "text/plain");
        });
        return Url(path);
    }

    std::string Redirect(const std::string& path, const std::string& target) {
        mServer->Get(path,
                     [target](const httplib::Request&, httplib::Response& response) { response.set_redirect(target); });
        return Url(path);
    }

    std::string Url(const std::string& path) const {
        return std::string(mScheme) + "://127.0.0.1:" + std::to_string(mPort) + path;
    }

private:
    std::unique_ptr<httplib::Server> mServer;
    const char* mScheme;
    int mPort;
    std::thread mThread;
};

// A listening socket on loopback. What it says to each connection, word for word, is up to the test.
class RawServer {
public:
    explicit RawServer(const std::string& answer) : mSocket(Listen()), mThread([this, answer] { Run(answer); }) {}
    ~RawServer() {
        mStop = true;
        shutdown(mSocket, SHUT_RDWR);
        mThread.join();
        close(mSocket);
    }
    RawServer(const RawServer&) = delete;
    RawServer& operator=(const RawServer&) = delete;

    int Connections() const { return mConnections; }
    int Port() const { return PortOf(mSocket); }
    std::string Url() const { return "http://127.0.0.1:" + std::to_string(Port()) + "/file"; }

    // The port of a socket that listened and was closed: nobody listens there.
    static int UnusedPort() {
        const int socket = Listen();
        const int port = PortOf(socket);
        close(socket);
        return port;
    }

private:
    static int Listen() {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(listener, 16) != 0) {
            throw std::runtime_error("cannot listen on loopback");
        }
        return listener;
    }

    static int PortOf(int socket) {
        sockaddr_in address{};
        socklen_t length = sizeof(address);
        getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }

    void Run(const std::string& answer) {
        while (!mStop) {
            const int connection = accept(mSocket, nullptr, nullptr);
            if (connection < 0) {
                return;
            }
            ++mConnections;
            ReadRequest(connection);
            std::size_t sent = 0;
            while (sent < answer.size()) {
                const ssize_t count = send(connection, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
                if (count <= 0) {
                    break;
                }
                sent += static_cast<std::size_t>(count);
            }
            close(connection);
        }
    }

    static void ReadRequest(int connection) {
        std::string request;
        char buffer[1024];
        while (request.find("\r\n\r\n") == std::string::npos) {
            const ssize_t count = read(connection, buffer, sizeof(buffer));
            if (count <= 0) {
                return;
            }
            request.append(buffer, static_cast<std::size_t>(count));
        }
    }

    int mSocket;
    std::atomic<bool> mStop{false};
    std::atomic<int> mConnections{0};
    std::thread mThread;
};

// A key and a certificate for 127.0.0.1 signed with it.
class Identity {
public:
    Identity() : mKey(EVP_EC_gen("P-256")), mCertificate(X509_new()) {
        X509_set_version(mCertificate, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(mCertificate), 1);
        X509_gmtime_adj(X509_getm_notBefore(mCertificate), -3600);
        X509_gmtime_adj(X509_getm_notAfter(mCertificate), 3600);
        X509_set_pubkey(mCertificate, mKey);
        X509_NAME* name = X509_get_subject_name(mCertificate);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("test"), -1, -1, 0);
        X509_set_issuer_name(mCertificate, name);
        X509_EXTENSION* address = X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, "IP:127.0.0.1");
        X509_add_ext(mCertificate, address, -1);
        X509_EXTENSION_free(address);
        X509_sign(mCertificate, mKey, EVP_sha256());
    }
    ~Identity() {
        X509_free(mCertificate);
        EVP_PKEY_free(mKey);
    }
    Identity(const Identity&) = delete;
    Identity& operator=(const Identity&) = delete;

    std::unique_ptr<httplib::Server> MakeServer() const {
        return std::make_unique<httplib::SSLServer>(mCertificate, mKey);
    }

    std::string WriteCertificate(const TempDir& dir) const {
        std::string path = dir / "ca.pem";
        FILE* file = fopen(path.c_str(), "w");
        PEM_write_X509(file, mCertificate);
        fclose(file);
        return path;
    }

private:
    EVP_PKEY* mKey;
    X509* mCertificate;
};

std::string Sha256Of(const std::string& content) {
    const TempDir dir;
    std::string digest;
    EXPECT_EQ(FileUtils::GetFileSha256(dir.Write("content", content), digest, UINT64_MAX), 0);
    return digest;
}

// A destination that held something before, and what became of it.
class Destination {
public:
    Destination() { mDir.Write("list", "old"); }

    int Download(const std::string& url, const std::string& sha256, const std::string& proxy = "",
                 const std::string& caFile = "") const {
        return HttpUtils::GetInstance()->Download(url, sha256, mDir / "list", proxy, caFile);
    }

    std::string Content() const { return mDir.Read("list"); }
    mode_t Mode() const {
        struct stat info {};
        stat((mDir / "list").c_str(), &info);
        return info.st_mode & 07777;
    }

    bool IsAsBefore() const { return Content() == "old" && NothingIsLeftBehind(); }
    bool NothingIsLeftBehind() const {
        return std::distance(std::filesystem::directory_iterator(mDir.Path()), std::filesystem::directory_iterator()) ==
               1;
    }

private:
    TempDir mDir;
};

} // namespace

TEST(Download, ReplacesTheDestinationWhenTheDigestFits) {
    WebServer server;
    const Destination destination;
    EXPECT_EQ(destination.Download(server.Serve("/list", CONTENT), Sha256Of(CONTENT)), 200);
    EXPECT_EQ(destination.Content(), CONTENT);
    EXPECT_EQ(destination.Mode(), 0600U);
    EXPECT_TRUE(destination.NothingIsLeftBehind());
}

TEST(Download, MakesADestinationThatWasMissing) {
    WebServer server;
    const TempDir dir;
    EXPECT_EQ(
        HttpUtils::GetInstance()->Download(server.Serve("/list", CONTENT), Sha256Of(CONTENT), dir / "new", "", ""),
        200);
    EXPECT_EQ(dir.Read("new"), CONTENT);
}

TEST(Download, TheDigestMayBeInEitherCase) {
    WebServer server;
    const Destination destination;
    std::string digest = Sha256Of(CONTENT);
    std::transform(digest.begin(), digest.end(), digest.begin(), [](char c) { return static_cast<char>(toupper(c)); });
    EXPECT_EQ(destination.Download(server.Serve("/list", CONTENT), digest), 200);
}

TEST(Download, KeepsEveryByte) {
    WebServer server;
    const Destination destination;
    std::string content;
    for (int i = 0; i < 1000000; ++i) {
        content += static_cast<char>(i % 251);
    }
    EXPECT_EQ(destination.Download(server.Serve("/list", content), Sha256Of(content)), 200);
    EXPECT_EQ(destination.Content(), content);
}

TEST(Download, AnEmptyFileIsAFile) {
    WebServer server;
    const Destination destination;
    EXPECT_EQ(destination.Download(server.Serve("/list", ""), Sha256Of("")), 200);
    EXPECT_EQ(destination.Content(), "");
}

TEST(Download, AnotherDigestIsRefused) {
    WebServer server;
    const Destination destination;
    const std::string url = server.Serve("/list", CONTENT);
    for (const std::string& digest :
         {Sha256Of("another"), std::string(), Sha256Of(CONTENT) + "0", Sha256Of(CONTENT).substr(1)}) {
        EXPECT_EQ(destination.Download(url, digest), HttpUtils::DOWNLOAD_DIGEST_MISMATCH);
        EXPECT_TRUE(destination.IsAsBefore());
    }
}

TEST(Download, GivesTheServersStatusWhenItIsNot200) {
    WebServer server;
    const Destination destination;
    server.ServeStatus("/gone", 410, CONTENT);
    server.ServeStatus("/broken", 500, "");
    server.ServeStatus("/partial", 206, CONTENT);
    server.ServeStatus("/huge", 404, std::string(HttpUtils::DOWNLOAD_MAX_BYTES + 1, 'x'));
    EXPECT_EQ(destination.Download(server.Url("/missing"), Sha256Of("")), 404);
    EXPECT_EQ(destination.Download(server.Url("/gone"), Sha256Of(CONTENT)), 410);
    EXPECT_EQ(destination.Download(server.Url("/broken"), Sha256Of("")), 500);
    EXPECT_EQ(destination.Download(server.Url("/partial"), Sha256Of(CONTENT)), 206);
    EXPECT_EQ(destination.Download(server.Url("/huge"), Sha256Of("")), 404);
    EXPECT_TRUE(destination.IsAsBefore());
}

TEST(Download, ABodyCutShortIsRefusedEvenIfTheDigestFits) {
    const RawServer server("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + std::string(CONTENT));
    const Destination destination;
    EXPECT_EQ(destination.Download(server.Url(), Sha256Of(CONTENT)), HttpUtils::DOWNLOAD_TRANSPORT);
    EXPECT_TRUE(destination.IsAsBefore());
}

TEST(Download, AChunkedBodyCutShortIsRefused) {
    const RawServer server("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nabcde\r\n");
    const Destination destination;
    EXPECT_EQ(destination.Download(server.Url(), Sha256Of("abcde")), HttpUtils::DOWNLOAD_TRANSPORT);
    EXPECT_TRUE(destination.IsAsBefore());
}

TEST(Download, AnAnswerThatIsNoHttpIsRefused) {
    const Destination destination;
    const RawServer silent("");
    EXPECT_EQ(destination.Download(silent.Url(), Sha256Of("")), HttpUtils::DOWNLOAD_TRANSPORT);
    const RawServer noise("noise\r\n\r\n");
    EXPECT_EQ(destination.Download(noise.Url(), Sha256Of("noise\r\n\r\n")), HttpUtils::DOWNLOAD_TRANSPORT);
    EXPECT_TRUE(destination.IsAsBefore());
}

TEST(Download, AFileOfTheGreatestSizeIsTakenOneByteMoreIsRefused) {
    WebServer server;
    const Destination destination;
    const std::string atLimit(HttpUtils::DOWNLOAD_MAX_BYTES, 'x');
    server.Serve("/limit", atLimit);
    server.Serve("/over", atLimit + "x");
    EXPECT_EQ(destination.Download(server.Url("/over"), Sha256Of(atLimit + "x")), HttpUtils::DOWNLOAD_TOO_LARGE);
    EXPECT_TRUE(destination.IsAsBefore());
    EXPECT_EQ(destination.Download(server.Url("/limit"), Sha256Of(atLimit)), 200);
    EXPECT_EQ(destination.Content().size(), atLimit.size());
}

TEST(Download, ABodyThatDoesNotSayHowLargeItIsIsLimitedToo) {
    const std::string body(HttpUtils::DOWNLOAD_MAX_BYTES + 1, 'x');
    const RawServer server("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + body);
    const Destination destination;
    EXPECT_EQ(destination.Download(server.Url(), Sha256Of(body)), HttpUtils::DOWNLOAD_TOO_LARGE);
    EXPECT_TRUE(destination.IsAsBefore());
}

TEST(Download, FollowsRedirects) {
    WebServer server;
    const Destination destination;
    server.Serve("/list", CONTENT);
    const std::string url = server.Redirect("/moved", server.Url("/list"));
    EXPECT_EQ(destination.Download(url, Sha256Of(CONTENT)), 200);
    EXPECT_EQ(destination.Content(), CONTENT);
}

TEST(Download, GivesUpAfterTooManyRedirects) {
    WebServer server;
    const Destination destination;
    server.Serve("/list", CONTENT);
    server.Redirect("/1", "/list");
    for (int i = 2; i <= 6; ++i) {
        server.Redirect("/" + std::to_string(i), "/" + std::to_string(i - 1));
    }
    EXPECT_EQ(destination.Download(server.Url("/6"), Sha256Of(CONTENT)), 302);
    EXPECT_TRUE(destination.IsAsBefore());
    EXPECT_EQ(destination.Download(server.Url("/5"), Sha256Of(CONTENT)), 200);
}

TEST(Download, ARedirectToAFileOrAnotherSchemeIsRefused) {
    WebServer server;
    const Destination destination;
    const TempDir local;
    const std::string file = server.Redirect("/file", "file://" + local.Write("secret", CONTENT));
    const std::string ftp = server.Redirect("/ftp", "ftp://127.0.0.1:1/list");
    EXPECT_EQ(destination.Download(file, Sha256Of(CONTENT)), HttpUtils::DOWNLOAD_BAD_URL);
    EXPECT_EQ(destination.Download(ftp, Sha256Of(CONTENT)), HttpUtils::DOWNLOAD_BAD_URL);
    EXPECT_TRUE(destination.IsAsBefore());
}

TEST(Download, ARedirectToWhereNobodyListensIsATransportFailure) {
    WebServer server;
    const Destination destination;
    const std::string nowhere = "http://127.0.0.1:" + std::to_string(RawServer::UnusedPort()) + "/list";
    EXPECT_EQ(destination.Download(server.Redirect("/moved", nowhere), Sha256Of(CONTENT)),
              HttpUtils::DOWNLOAD_TRANSPORT);
}

TEST(Download, AServerThatDoesNotListenIsATransportFailure) {
    const Destination destination;
    const std::string url = "http://127.0.0.1:" + std::to_string(RawServer::UnusedPort()) + "/list";
    EXPECT_EQ(destination.Download(url, Sha256Of(CONTENT)), HttpUtils::DOWNLOAD_TRANSPORT);
    EXPECT_TRUE(destination.IsAsBefore());
}

TEST(Download, TakesFileUrls) {
    const TempDir local;
    const Destination destination;
    const std::string path = local.Write("a list", CONTENT);
    EXPECT_EQ(destination.Download("file://" + local.Path() + "/a%20list", Sha256Of(CONTENT)), 200);
    EXPECT_EQ(destination.Content(), CONTENT);
    EXPECT_EQ(destination.Mode(), 0600U);
    EXPECT_EQ(TempDir::ReadText(path), CONTENT);
}

TEST(Download, AFileUrlMayNameAnyFile) {
    const TempDir local;
    local.Write("a\n\xff%?#", CONTENT);
    const Destination destination;
    EXPECT_EQ(destination.Download("file://" + local.Path() + "/a%0A%FF%25%3F%23", Sha256Of(CONTENT)), 200);
    EXPECT_EQ(destination.Download("file://" + local.Path() + "/a%00b", Sha256Of(CONTENT)),
              HttpUtils::DOWNLOAD_BAD_URL);
}

TEST(Download, FileUrlsHaveTheSameLimits) {
    const TempDir local;
    const Destination destination;
    const std::string path = local.Write("list", CONTENT);
    EXPECT_EQ(destination.Download("file://" + path, Sha256Of("another")), HttpUtils::DOWNLOAD_DIGEST_MISMATCH);
    EXPECT_EQ(destination.Download("file://" + path + ".missing", Sha256Of(CONTENT)), HttpUtils::DOWNLOAD_TRANSPORT);
    EXPECT_EQ(destination.Download("file://" + local.Path(), Sha256Of(CONTENT)), HttpUtils::DOWNLOAD_TRANSPORT);
    ASSERT_EQ(truncate(path.c_str(), HttpUtils::DOWNLOAD_MAX_BYTES + 1), 0);
    EXPECT_EQ(destination.Download("file://" + path, Sha256Of(CONTENT)), HttpUtils::DOWNLOAD_TOO_LARGE);
    EXPECT_TRUE(destination.IsAsBefore());
}

TEST(Download, AFileUrlThatLeadsToAFifoIsNotWaitedFor) {
    const TempDir local;
    const Destination destination;
    ASSERT_EQ(mkfifo((local / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(destination.Download("file://" + (local / "fifo"), Sha256Of("")), HttpUtils::DOWNLOAD_TRANSPORT);
    EXPECT_TRUE(destination.IsAsBefore());
}

TEST(Download, OtherUrlsAreRefused) {
    const Destination destination;
    for (const char* url : {"", "list", "/etc/hostname", "127.0.0.1/list", "ftp://127.0.0.1/list",
                            "gopher://127.0.0.1/", "data:,x", "http://", "://x", "javascript:x", "scp://127.0.0.1/x"}) {
        EXPECT_EQ(destination.Download(url, Sha256Of("")), HttpUtils::DOWNLOAD_BAD_URL) << url;
    }
    EXPECT_TRUE(destination.IsAsBefore());
}

TEST(Download, ASchemeMayBeInUpperCase) {
    WebServer server;
    const Destination destination;
    std::string url = server.Serve("/list", CONTENT);
    url.replace(0, 4, "HTTP");
    EXPECT_EQ(destination.Download(url, Sha256Of(CONTENT)), 200);
}

TEST(Download, ADestinationThatCannotBeWrittenIsALocalFailure) {
    WebServer server;
    const TempDir dir;
    std::filesystem::create_directory(dir / "folder");
    const std::string url = server.Serve("/list", CONTENT);
    HttpUtils* http = HttpUtils::GetInstance();
    EXPECT_EQ(http->Download(url, Sha256Of(CONTENT), dir / "missing/list", "", ""), HttpUtils::DOWNLOAD_LOCAL);
    EXPECT_EQ(http->Download(url, Sha256Of(CONTENT), dir / "folder", "", ""), HttpUtils::DOWNLOAD_LOCAL);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.Path()), std::filesystem::directory_iterator()), 1);
}

TEST(Download, DoesNotUseTheProxyOfTheEnvironment) {
    const RawServer proxy("HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n");
    const std::string address = "http://127.0.0.1:" + std::to_string(proxy.Port());
    for (const char* variable : {"http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY"}) {
        setenv(variable, address.c_str(), 1);
    }
    unsetenv("no_proxy");
    unsetenv("NO_PROXY");
    WebServer server;
    const Destination destination;
    EXPECT_EQ(destination.Download(server.Serve("/list", CONTENT), Sha256Of(CONTENT)), 200);
    EXPECT_EQ(proxy.Connections(), 0);
}

TEST(Download, UsesTheProxyThatItIsGiven) {
    setenv("no_proxy", "*", 1);
    const RawServer proxy("HTTP/1.1 200 OK\r\nContent-Length: 19\r\n\r\n" + std::string(CONTENT));
    const Destination destination;
    EXPECT_EQ(destination.Download("http://corvalent.invalid/list", Sha256Of(CONTENT),
                                   "http://127.0.0.1:" + std::to_string(proxy.Port())),
              200);
    EXPECT_EQ(proxy.Connections(), 1);
    EXPECT_EQ(destination.Content(), CONTENT);
}

TEST(Download, OverHttpsTrustsTheGivenCertificates) {
    const Identity identity;
    WebServer server(identity.MakeServer(), "https");
    const TempDir certificates;
    const Destination destination;
    const std::string url = server.Serve("/list", CONTENT);
    EXPECT_EQ(destination.Download(url, Sha256Of(CONTENT), "", identity.WriteCertificate(certificates)), 200);
    EXPECT_EQ(destination.Content(), CONTENT);
}

TEST(Download, OverHttpsRefusesAServerThatNobodyVouchesFor) {
    const Identity identity;
    const Identity stranger;
    WebServer server(identity.MakeServer(), "https");
    const TempDir certificates;
    const Destination destination;
    const std::string url = server.Serve("/list", CONTENT);
    EXPECT_EQ(destination.Download(url, Sha256Of(CONTENT)), HttpUtils::DOWNLOAD_TRANSPORT);
    EXPECT_EQ(destination.Download(url, Sha256Of(CONTENT), "", stranger.WriteCertificate(certificates)),
              HttpUtils::DOWNLOAD_TRANSPORT);
    EXPECT_EQ(destination.Download(url, Sha256Of(CONTENT), "", certificates / "missing.pem"),
              HttpUtils::DOWNLOAD_TRANSPORT);
    EXPECT_TRUE(destination.IsAsBefore());
}

TEST(Download, WorksOnManyThreadsAtOnce) {
    WebServer server;
    const std::string url = server.Serve("/list", CONTENT);
    const std::string digest = Sha256Of(CONTENT);
    // One alone first: the library that serves makes its tables at the first request it reads, and the thread
    // sanitizer, which does not see into it, not that others wait for that.
    ASSERT_EQ(Destination().Download(url, digest), 200);
    std::vector<std::thread> threads;
    threads.reserve(6);
    for (int i = 0; i < 6; ++i) {
        threads.emplace_back([&] {
            const Destination destination;
            EXPECT_EQ(destination.Download(url, digest), 200);
            EXPECT_EQ(destination.Content(), CONTENT);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// The last one: nothing can be fetched any more afterwards.
TEST(Download, EndsWithinMomentsOnceDownloadsAreStopped) {
    httplib::Server server;
    std::atomic<bool> asked{false};
    std::atomic<bool> answerWanted{false};
    server.Get("/list", [&](const httplib::Request&, httplib::Response&) {
        asked = true;
        TestSupport::WaitFor([&] { return answerWanted.load(); });
    });
    const int port = server.bind_to_any_port("127.0.0.1");
    std::thread serving([&] { server.listen_after_bind(); });
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/list";
    const Destination destination;
    std::atomic<int> result{0};
    std::thread downloading([&] { result = destination.Download(url, Sha256Of(CONTENT)); });
    EXPECT_TRUE(TestSupport::WaitFor([&] { return asked.load(); }));

    HttpUtils::GetInstance()->StopDownloads();
    downloading.join();
    EXPECT_FALSE(answerWanted);
    EXPECT_EQ(result, HttpUtils::DOWNLOAD_TRANSPORT);
    EXPECT_TRUE(destination.IsAsBefore());
    EXPECT_EQ(destination.Download(url, Sha256Of(CONTENT)), HttpUtils::DOWNLOAD_TRANSPORT);
    answerWanted = true;
    server.stop();
    serving.join();
}
