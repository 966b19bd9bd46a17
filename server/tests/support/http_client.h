// A plain HTTP/1.1 client for tests. It sends exactly what it is told, garbage included.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace halvane::server {

struct Reply {
    int status = 0;
    std::map<std::string, std::string> headers; // lower-case names
    std::string body;

    nlohmann::json json() const { return nlohmann::json::parse(body); }
    nlohmann::json data() const { return json().at("data"); }
    // The code of the error envelope; 0 when it is none.
    int errorCode() const;
    std::string errorMessage() const;
};

using ClientHeaders = std::vector<std::pair<std::string, std::string>>;

// One connection; failures of it throw std::runtime_error. A read that waits for 60 s fails.
class HttpClient {
public:
    explicit HttpClient(std::uint16_t port);
    ~HttpClient();
    HttpClient(const HttpClient&) = delete;
    HttpClient& operator=(const HttpClient&) = delete;

    // Content-Length is added for every body.
    Reply request(const std::string& method, const std::string& path, const std::string& body = {},
                  const ClientHeaders& headers = {});
    void sendRaw(const std::string& bytes);
    Reply readReply(bool hasBody = true);
    // Waits until the server ends the connection, possibly after more bytes; false when it does not.
    bool readToEnd();
    // Ends the connection without a word.
    void abort();

private:
    std::string readUntil(const std::string& mark);
    std::string readBytes(std::size_t count);
    bool fill();
    ssize_t receive();

    int m_socket = -1;
    std::string m_buffer;
};

} // namespace halvane::server
