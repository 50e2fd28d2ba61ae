#pragma once

#include <QString>
#include <QStringList>

#include <objbase.h>

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace ruvo::test {

inline QString guidText(const GUID &guid)
{
    wchar_t text[64] = {};
    StringFromGUID2(guid, text, 64);
    return QString::fromWCharArray(text);
}

/// What the fakes of the filtering engine and of the Windows Firewall are asked, as lines in one order, and which of
/// these calls fail. One thread at a time.
class FirewallCalls
{
public:
    /// Writes the call down. 0, or the code with which it fails.
    std::uint32_t answer(const QString &line)
    {
        lines.append(line);
        if (m_remaining && --*m_remaining == 0) {
            m_failed = line;
            return m_errorOfCall;
        }
        for (const auto &[part, error] : m_failures) {
            if (line.contains(part)) {
                m_failed = line;
                return error;
            }
        }
        return 0;
    }
    /// For calls that cannot fail, or whose failure nobody looks at.
    void note(const QString &line) { lines.append(line); }

    /// Every call whose line contains `part` fails.
    void fail(const QString &part, std::uint32_t error) { m_failures.emplace_back(part, error); }
    /// Of all calls that can fail, the `nth` from here on does (1 is the next).
    void failCall(int nth, std::uint32_t error)
    {
        m_remaining = nth;
        m_errorOfCall = error;
    }
    void clear() { *this = {}; }

    /// The last call that has failed because of this; empty if none has.
    QString failed() const { return m_failed; }
    QStringList linesWith(const QString &part) const { return lines.filter(part); }

    QStringList lines;

private:
    std::vector<std::pair<QString, std::uint32_t>> m_failures;
    std::optional<int> m_remaining;
    std::uint32_t m_errorOfCall = 0;
    QString m_failed;
};

} // namespace ruvo::test
