#include "streams.h"

#include <algorithm>
#include <array>
#include <chrono>

namespace ruvo::winehost {

namespace {

constexpr size_t digits = 12;
constexpr size_t chunkSize = 4096;

using Clock = std::chrono::steady_clock;

std::array<unsigned, digits> digitsOf(uint64_t number)
{
    std::array<unsigned, digits> result{};
    for (auto digit = result.rbegin(); digit != result.rend(); ++digit, number /= 10)
        *digit = static_cast<unsigned>(number % 10);
    return result;
}

/// The CRC-32 that zlib computes.
class Crc32
{
public:
    void add(std::string_view bytes)
    {
        for (const char byte : bytes) {
            m_value ^= static_cast<unsigned char>(byte);
            for (int bit = 0; bit < 8; ++bit)
                m_value = (m_value >> 1) ^ ((m_value & 1) != 0 ? 0xedb88320u : 0u);
        }
    }
    uint32_t value() const { return ~m_value; }

private:
    uint32_t m_value = 0xffffffff;
};

} // namespace

std::string asciiLine(uint64_t number)
{
    std::string line;
    for (const unsigned digit : digitsOf(number))
        line += static_cast<char>('0' + digit);
    line += '\n';
    return line;
}

std::string utf8Line(uint64_t number)
{
    std::string line;
    // Fullwidth digits, three bytes each.
    for (const unsigned digit : digitsOf(number)) {
        line += "\xef\xbc";
        line += static_cast<char>(0x90 + digit);
    }
    line += "\xc3\xa9\xf0\x9f\x98\x80\n";
    return line;
}

void writeLines(const LinePlan &plan)
{
    const HANDLE handle = handleOf(plan.stream);
    const auto start = Clock::now();
    uint64_t number = 0, bytes = 0, elapsedUs = 0;
    std::string end;
    std::string chunk;
    while (end.empty()) {
        const auto elapsed = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
        elapsedUs = static_cast<uint64_t>(elapsed.count());
        const uint64_t due = plan.bytesPerSecond == 0 ? UINT64_MAX : plan.bytesPerSecond * elapsedUs / 1'000'000;
        if (plan.durationMs != 0 && elapsedUs / 1000 >= plan.durationMs) {
            end = "time";
            break;
        }
        chunk.clear();
        uint64_t next = number;
        while (plan.lines == 0 || next < plan.lines) {
            const std::string line = plan.line(next);
            if (chunk.size() + line.size() > chunkSize || bytes + chunk.size() + line.size() > due)
                break;
            chunk += line;
            ++next;
        }
        if (chunk.empty()) {
            if (plan.lines != 0 && number == plan.lines)
                end = "count";
            else
                Sleep(5);
            continue;
        }
        if (const DWORD error = writeAll(handle, chunk); error != ERROR_SUCCESS) {
            end = "error " + std::to_string(error);
            break;
        }
        number = next;
        bytes += chunk.size();
    }
    // On the stream itself this line would stand among the numbers.
    if (hasReport()) {
        tell(fact("lines")
                 .add("stream", nameOf(plan.stream))
                 .add("lines", number)
                 .add("bytes", bytes)
                 .add("ms", elapsedUs / 1000)
                 .add("end", std::string_view(end)));
    }
}

void readInput(uint64_t limit, bool echo)
{
    const HANDLE handle = handleOf(Stream::Input);
    std::string buffer(64 * 1024, '\0');
    uint64_t bytes = 0;
    Crc32 crc;
    std::string end = "limit";
    while (limit == 0 || bytes < limit) {
        const uint64_t wanted = limit == 0 ? buffer.size() : std::min<uint64_t>(buffer.size(), limit - bytes);
        DWORD received = 0;
        if (!ReadFile(handle, buffer.data(), static_cast<DWORD>(wanted), &received, nullptr)) {
            const DWORD error = GetLastError();
            end = error == ERROR_BROKEN_PIPE ? "eof" : "error " + std::to_string(error);
            break;
        }
        if (received == 0) {
            end = "eof";
            break;
        }
        const std::string_view data(buffer.data(), received);
        bytes += received;
        crc.add(data);
        if (echo)
            writeAll(handleOf(Stream::Output), data);
    }
    tell(fact("input").add("bytes", bytes).add("crc32", crc.value()).add("end", std::string_view(end)));
}

void readLine()
{
    std::string line;
    for (;;) {
        char byte = 0;
        DWORD received = 0;
        if (!ReadFile(handleOf(Stream::Input), &byte, 1, &received, nullptr) || received == 0) {
            tell(fact("line").add("text", static_cast<const wchar_t *>(nullptr)));
            return;
        }
        if (byte == '\n')
            break;
        line += byte;
    }
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    tell(fact("line").add("text", std::string_view(line)));
}

} // namespace ruvo::winehost
