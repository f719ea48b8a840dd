#pragma once

#include <utility>

#include <unistd.h>

namespace tulo {

/// Owns an open file descriptor and closes it; -1 when there is none.
class UniqueFd
{
public:
    explicit UniqueFd(int descriptor = -1)
        : m_descriptor(descriptor)
    {
    }
    UniqueFd(UniqueFd&& other) noexcept
        : m_descriptor(std::exchange(other.m_descriptor, -1))
    {
    }
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        std::swap(m_descriptor, other.m_descriptor);
        other.reset();
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const { return m_descriptor; }
    explicit operator bool() const { return m_descriptor >= 0; }

    /// Closes.
    void reset()
    {
        if (m_descriptor >= 0)
            ::close(m_descriptor);
        m_descriptor = -1;
    }

private:
    int m_descriptor;
};

} // namespace tulo
