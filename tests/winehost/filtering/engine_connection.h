#pragma once

#include "kernel/system_call.h"
#include "library/json_line.h"
#include "library/json_value.h"

#include <optional>
#include <string>

namespace ruvo::winehost {

/// A connection to the bench's filtering engine, a program of Linux in the same network namespace: one question in a
/// line of JSON, one answer in another. The engine drops what belongs to the connection when it ends, also when this
/// process is killed. Not thread-safe.
class EngineConnection
{
public:
    /// Fails where no engine listens.
    bool connect();
    /// Nothing if the engine does not answer any more: the connection is closed then.
    std::optional<JsonValue> ask(const JsonLine &question);

    explicit operator bool() const { return static_cast<bool>(m_socket); }

private:
    bool send(std::string_view text);
    std::optional<std::string> receiveLine();

    Descriptor m_socket;
    std::string m_received; ///< behind the last line that was taken
};

} // namespace ruvo::winehost
