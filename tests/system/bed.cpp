// Shared parts of the system tests.
#include "bed.h"

#include <cstring>

namespace bed
{

std::string header(std::uint8_t dataid, std::uint32_t length, std::uint8_t prototype)
{
    std::string bytes = {0x10, 0x01, static_cast<char>(prototype), static_cast<char>(dataid)};
    for (int shift = 0; shift < 32; shift += 8)
        bytes.push_back(static_cast<char>(length >> shift));
    return bytes;
}

std::string packet(std::uint8_t dataid, std::string_view data, std::uint8_t prototype, std::uint16_t version)
{
    std::string bytes = header(dataid, static_cast<std::uint32_t>(8 + data.size()), prototype);
    bytes[0] = static_cast<char>(version & 0xFF);
    bytes[1] = static_cast<char>(version >> 8);
    bytes += data;
    return bytes;
}

std::uint32_t word_at(std::string_view bytes, std::size_t at)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes.at(at + i))) << (8 * i);
    return value;
}

std::string receive_packet(const testbed::TcpClient &client)
{
    const std::string head = client.receive(8, PATIENCE);
    const std::uint32_t length = word_at(head, 4);
    return length > 8 ? head + client.receive(length - 8, PATIENCE) : head;
}

std::string receive_answer(const testbed::TcpClient &client)
{
    std::string answer = receive_packet(client);
    while (answer.at(3) == NOTICE)
        answer = receive_packet(client);
    return answer;
}

std::string ask_status(const testbed::TcpClient &client)
{
    client.send(packet(16));
    const std::string answer = receive_answer(client);
    EXPECT_EQ(answer[3], 64);
    EXPECT_EQ(word_at(answer, 4), 228u);
    return answer.substr(8);
}

UPS_UPSINFO status()
{
    const testbed::TcpClient client;
    const std::string bytes = ask_status(client);
    UPS_UPSINFO info;
    std::memcpy(&info, bytes.data(), sizeof info);  // these tests run on little-endian hosts only
    return info;
}

UPS_UPSINFO wait_for_status(const std::string &what,
                            const std::function<bool(const UPS_UPSINFO &)> &predicate,
                            testbed::milliseconds limit)
{
    UPS_UPSINFO seen{};
    testbed::wait_until(
        what, limit,
        [&] {
            seen = status();
            return predicate(seen);
        },
        [&] {
            return "CommStatus " + std::to_string(seen.CommStatus) + ", ComId " + std::to_string(seen.ComId) +
                   ", upsstat " + std::to_string(seen.upsstat) + ", model \"" + model_of(seen) + "\"";
        });
    return seen;
}

UPS_UPSINFO wait_for_link(int commstatus, testbed::milliseconds limit)
{
    return wait_for_status(
        "CommStatus " + std::to_string(commstatus),
        [commstatus](const UPS_UPSINFO &info) { return info.CommStatus == commstatus; }, limit);
}

std::string model_of(const UPS_UPSINFO &info)
{
    return {info.upsmodel.data(), strnlen(info.upsmodel.data(), info.upsmodel.size())};
}

int socket_count(pid_t pid)
{
    int count = 0;
    for (int fd = 0; fd < 128; ++fd)
        count += testbed::descriptor_target(pid, fd).starts_with("socket:") ? 1 : 0;
    return count;
}

}  // namespace bed
