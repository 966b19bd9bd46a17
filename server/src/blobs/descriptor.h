// An open file descriptor that closes itself.
#pragma once

#include <unistd.h>
#include <utility>

namespace halvane::server {

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other) {
            close();
            m_fd = std::exchange(other.m_fd, -1);
        }
        return *this;
    }

    int get() const { return m_fd; }
    bool isOpen() const { return m_fd >= 0; }

private:
    void close() {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }

    int m_fd = -1;
};

} // namespace halvane::server
