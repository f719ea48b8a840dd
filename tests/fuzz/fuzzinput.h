#pragma once

#include "api/core/tulo.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <cstdint>

#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

/// The input of a fuzz target, taken apart from its beginning. Reads zeros behind its end.
class FuzzInput
{
public:
    FuzzInput(const std::uint8_t* data, std::size_t size)
        : m_bytes(reinterpret_cast<const char*>(data), int(size))
    {
    }

    bool atEnd() const { return m_position >= m_bytes.size(); }

    unsigned byte() { return atEnd() ? 0 : unsigned(std::uint8_t(m_bytes.at(m_position++))); }

    /// Up to the next byte 0xFF, which no text in UTF-8 holds, or the end.
    QByteArray chunk()
    {
        const int end = m_bytes.indexOf('\xFF', m_position);
        const int length = end < 0 ? m_bytes.size() - m_position : end - m_position;
        const QByteArray taken = m_bytes.mid(m_position, length);
        m_position += length + 1;
        return taken;
    }

    /// A chunk as a text: of UTF-16 code units if the first byte says so, so that it may be no
    /// valid Unicode, otherwise of UTF-8.
    QString text()
    {
        const QByteArray taken = chunk();
        if (!taken.startsWith('\x01'))
            return QString::fromUtf8(taken);
        QString units;
        for (int i = 1; i + 1 < taken.size(); i += 2)
            units.append(
                QChar(ushort(std::uint8_t(taken.at(i)) << 8 | std::uint8_t(taken.at(i + 1)))));
        return units;
    }

private:
    const QByteArray m_bytes;
    int m_position = 0;
};

/// Has every log text built and thrown away (`loud`), or none built at all.
inline void setLogging(bool loud)
{
    static const bool hasAppender = [] {
        log4cplus::Logger::getRoot().addAppender(
            log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));
        return true;
    }();
    Q_UNUSED(hasAppender)
    log4cplus::Logger::getRoot().setLogLevel(loud ? log4cplus::TRACE_LOG_LEVEL
                                                  : log4cplus::OFF_LOG_LEVEL);
}
