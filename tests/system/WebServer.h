#pragma once

#include <map>
#include <mutex>
#include <string>
#include <thread>

#include <httplib.h>

namespace SystemTest {

// A web server on the loopback interface with what the test puts there.
class WebServer {
public:
    WebServer() {
        mServer.Get("/.*", [this](const httplib::Request& request, httplib::Response& response) {
            Answer(request.path, response);
        });
        mPort = mServer.bind_to_any_port("127.0.0.1");
        mThread = std::thread([this] { mServer.listen_after_bind(); });
    }
    ~WebServer() {
        // A server that has not begun to listen cannot be stopped yet.
        while (!mServer.is_running()) {
            std::this_thread::yield();
        }
        mServer.stop();
        mThread.join();
    }
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // Serves the text under /NAME; the URL.
    std::string Put(const std::string& name, const std::string& text) { return Keep(name, {text, false}); }

    // The same, but the connection breaks off in the middle of the text.
    std::string PutBroken(const std::string& name, const std::string& text) { return Keep(name, {text, true}); }

    std::string GetUrl(const std::string& name) const {
        return "http://127.0.0.1:" + std::to_string(mPort) + "/" + name;
    }

private:
    struct Document {
        std::string text;
        bool broken;
    };

    std::string Keep(const std::string& name, const Document& document) {
        const std::lock_guard<std::mutex> guard(mMutex);
        mDocuments["/" + name] = document;
        return GetUrl(name);
    }

    void Answer(const std::string& path, httplib::Response& response) {
        const std::lock_guard<std::mutex> guard(mMutex);
        const auto found = mDocuments.find(path);
        if (found == mDocuments.end()) {
            response.status = 404;
        } else if (found->second.broken) {
            BreakOff(found->second.text, response);
        } else {
            response.set_content(found->second.text, "application/json");
        }
    }

    static void BreakOff(const std::string& text, httplib::Response& response) {
        response.set_content_provider(text.size(), "application/json",
                                      [text](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
                                          sink.write(text.data() + offset, length / 2);
                                          return false;
                                      });
    }

    httplib::Server mServer;
    int mPort = 0;
    std::mutex mMutex;
    std::map<std::string, Document> mDocuments; // under mMutex
    std::thread mThread;
};

} // namespace SystemTest
