// A monitor's requests of every kind, mixed at random, in batches that end with a fence: what the memory test
// and the memory figures send.
#pragma once

#include "testbed.h"
#include "wire_records.h"

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>

namespace mixed
{

inline constexpr auto PATIENCE = std::chrono::seconds(120);

inline std::string little16(int value)
{
    return {static_cast<char>(value), static_cast<char>(value >> 8)};
}

inline std::string packet(std::uint8_t dataid, std::string_view data = {}, std::uint16_t version = 0x0110)
{
    const auto length = static_cast<std::uint32_t>(PACKET_HEAD_SIZE + data.size());
    std::string bytes = little16(version);
    bytes += '\x01';
    bytes += static_cast<char>(dataid);
    bytes.append(reinterpret_cast<const char *>(&length), sizeof length);
    return bytes.append(data);
}

/// A sub-request of DataId 24.
inline std::string command(int sub, int firstline = 0, int linecounts = 0)
{
    std::string data(1, static_cast<char>(sub));
    return packet(DATAID_COMMAND, data + std::string(1, '\0') + little16(firstline) + little16(linecounts) +
                                      std::string(2, '\0'));
}

inline std::string text_field(std::string_view text, std::size_t width)
{
    std::string field(text);
    field.resize(width);
    return field;
}

/// The next whole packet that is no notice.
inline std::string next_answer(const testbed::TcpClient &client)
{
    for (;;) {
        std::string bytes = client.receive(PACKET_HEAD_SIZE, PATIENCE);
        std::uint32_t length = 0;
        std::memcpy(&length, bytes.data() + 4, sizeof length);
        if (length > PACKET_HEAD_SIZE)
            bytes += client.receive(length - PACKET_HEAD_SIZE, PATIENCE);
        if (static_cast<std::uint8_t>(bytes[3]) != DATAID_MESSAGE)
            return bytes;
    }
}

inline std::string ask(const testbed::TcpClient &client, const std::string &request)
{
    client.send(request);
    return next_answer(client);
}

/// The settings in force as the packets that would set them again.
struct SETTINGS {
    std::string schedules;
    std::string events;
    std::string config;
};

inline SETTINGS read_settings(const testbed::TcpClient &client)
{
    return {ask(client, command(3)), ask(client, command(4)), ask(client, command(5))};
}

/// One request; one in a few hundred reads or stores all event settings, which takes a thousand times as
/// long.
inline std::string request(std::mt19937 &random, const SETTINGS &settings)
{
    const auto draw = [&random](int count) {
        return static_cast<int>(random() % static_cast<unsigned>(count));
    };
    switch (draw(16)) {
    case 0:
        return packet(DATAID_OSINFO,
                      std::string("\x02\0\0\0\x02\0\0\0\0\0\0\0", 12) + text_field("Linux", 16));
    case 1:
        return command(1, draw(200), draw(40));
    case 2:
        return command(2, 0, draw(40));
    case 3:
        return command(3);
    case 4:
        return command(5);
    case 5:
        return packet(DATAID_GETBATTIME);
    case 6:
        return packet(DATAID_INQAGENT, text_field("", 20));
    case 7:
        return packet(DATAID_PASSWORD, std::string(60, static_cast<char>('a' + draw(26))));
    case 8:
        return packet(DATAID_CANCELSHUTDOWN);  // refused: without its name
    case 9:
        return packet(DATAID_CONFIG, std::string(static_cast<std::size_t>(draw(872)), '\x7f'));  // refused
    case 10:
        return packet(DATAID_SCHEDULES, std::string(static_cast<std::size_t>(draw(9)) * 20 + 1, '\x01'));
    case 11:
        return std::string("\xff") + packet(27);  // an idle sign, a header that is not valid
    case 12:
        switch (draw(400)) {
        case 0:
            return settings.events;
        case 1:
        case 2:
            return settings.config;
        case 3:
            return settings.schedules;
        case 4:
        case 5:
        case 6:
        case 7:
            return command(4);
        default:
            return packet(DATAID_GETUPSINFO, {}, 0x0100);
        }
    default:
        return packet(DATAID_GETUPSINFO);
    }
}

/// `count` requests and the fence, whose answer is the last of the batch.
inline std::string batch(std::mt19937 &random, const SETTINGS &settings, int count)
{
    std::string bytes;
    for (int i = 0; i < count; ++i)
        bytes += request(random, settings);
    return bytes + command(6);
}

inline void await_fence(const testbed::TcpClient &client)
{
    while (static_cast<std::uint8_t>(next_answer(client)[3]) != DATAID_ANSNULL)
        ;
}

/// What a process holds.
struct HOLDINGS {
    long rss = 0;   // kB
    long data = 0;  // kB, VmData
    long descriptors = 0;
};

inline long status_number(std::string_view status, std::string_view name)
{
    const std::size_t at = status.find(name);
    return at == std::string_view::npos ? -1 : std::stol(std::string(status.substr(at + name.size(), 20)));
}

inline HOLDINGS holdings_of(pid_t pid)
{
    const std::string directory = "/proc/" + std::to_string(pid);
    const std::string status = testbed::read_file(directory + "/status");
    const auto descriptors = std::filesystem::directory_iterator(directory + "/fd");
    return {status_number(status, "VmRSS:"), status_number(status, "VmData:"),
            static_cast<long>(std::distance(begin(descriptors), end(descriptors)))};
}

}  // namespace mixed
