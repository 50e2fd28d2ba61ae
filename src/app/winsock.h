#pragma once

namespace ruvo {

/// Winsock 2.2 for as long as the object lives.
class Winsock
{
public:
    Winsock();
    ~Winsock();
    Winsock(const Winsock &) = delete;
    Winsock &operator=(const Winsock &) = delete;

    /// 0, or what WSAStartup failed with.
    int error() const { return m_error; }

private:
    const int m_error;
};

} // namespace ruvo
