#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace orx::testing {

//! The head of an HTTP/1.1 message: its first line and its headers.
struct HttpHead {
    //! As it came, with the empty line at its end.
    std::string text;
    //! The three parts of the first line.
    std::string first, second, third;
    //! Names in lower case.
    std::map<std::string, std::string> headers;

    std::string header(const std::string& name) const;
    //! Of a reply; 0 when it is none.
    int status() const;

    //! Nothing while \a bytes does not hold a whole head yet.
    static std::optional<HttpHead> parse(std::string_view bytes);
};

//! Follows the body of a message through the bytes as they come, and says where it ends.
class HttpBodyFraming {
public:
    static HttpBodyFraming ofRequest(const HttpHead& head);
    //! \a requestMethod: replies to HEAD have no body.
    static HttpBodyFraming ofReply(const HttpHead& head, const std::string& requestMethod);

    //! How many of \a bytes belong to this message; never more than there are.
    size_t consume(std::string_view bytes);
    bool isComplete() const { return m_state == State::Complete; }
    //! Whether the end of the connection is the end of the body.
    bool endsWithConnection() const { return m_state == State::UntilClose; }

private:
    enum class State { Complete, Counted, UntilClose, ChunkSize, ChunkData, ChunkEnd, Trailer };
    explicit HttpBodyFraming(const HttpHead& head);
    void consumeLine(std::string_view line);

    State m_state = State::Complete;
    unsigned long long m_left = 0;
    std::string m_line;
};

} // namespace orx::testing
