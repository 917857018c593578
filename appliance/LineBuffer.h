// Cuts a stream of bytes into lines that are not longer than they may be.
//
// Thread safety: one thread.
#pragma once

#include <cstddef>
#include <string>

class LineBuffer
{
public:
    explicit LineBuffer(size_t maxLineBytes) : m_maxLineBytes(maxLineBytes) {}

    void add(const char* bytes, size_t count) { m_bytes.append(bytes, count); }

    // Takes the next whole line off, without its end; false where there is none.
    bool next(std::string* line)
    {
        const size_t end = m_bytes.find('\n', m_scanned);
        if (end == std::string::npos) {
            m_scanned = m_bytes.size();
            return false;
        }
        line->assign(m_bytes, 0, end);
        m_bytes.erase(0, end + 1);
        m_scanned = 0;
        return true;
    }

    // Whether what has come of a line is too long for one already; asked when next() says false.
    bool isTooLong() const { return m_bytes.size() > m_maxLineBytes; }

    size_t size() const { return m_bytes.size(); }

private:
    const size_t m_maxLineBytes;
    std::string m_bytes;
    size_t m_scanned = 0; // no line end before this
};
