#include "monitor_fake_agent.h"

#include <algorithm>
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>

template <std::size_t N> static void set_text(std::array<char, N> &field, std::string_view text)
{
    field.fill('\0');
    std::copy(text.begin(), text.end(), field.begin());
}

UPS_UPSINFO sample_status()
{
    UPS_UPSINFO status{};
    status.ComId = 1;
    status.upsstat = UPSSTAT_NORMAL;
    status.BattStatus = BATT_NORMAL;
    status.CommStatus = COMM_ESTABLISHED;
    status.BuzzerCan = 1;
    status.bAutoReboot = 1;
    status.iDetectionLvl = 3;
    status.AgentType = AGENTTYPE_NORMAL;
    set_text(status.upsmodel, "ZR900PL");
    status.upsdata = {100, 101, 3, 4, 50, 1, 60, 2, 25, 5, 27, 6, 98, 35};
    status.timeinfo = {105, 3, 5, 9, 7, 2, 0};
    status.nextdown = {105, 12, 24, 22, 0, 0, 0};
    status.PreChangeBatt = {103, 4, 1, 0, 0, 0, 0};
    set_text(status.Group, "\x8a\xc7\x97\x9d");  // two characters in Shift-JIS
    status.events[0] = {65, -1, 0, {105, 3, 4, 1, 2, 3, 0}, {}};
    status.events[1] = {79, -1, 0, {105, 3, 4, 1, 5, 3, 0}, {}};
    set_text(status.events[1].AgentName, "pc7");
    status.sftResBattery = {SELFTEST_PASSED, {105, 1, 1, 3, 0, 0, 0}};
    status.sftResUPS = {SELFTEST_NONE, {}};
    status.ufStatus = 0x1288;
    return status;
}

BYTES packet(std::uint8_t data_id, std::span<const std::uint8_t> data)
{
    const std::size_t length = data.size() + 8;
    BYTES bytes{0x10, 0x01, 0x01, data_id};
    for (int shift = 0; shift < 32; shift += 8)
        bytes.push_back(static_cast<std::uint8_t>(length >> shift));
    bytes.insert(bytes.end(), data.begin(), data.end());
    return bytes;
}

BYTES status_answer(const UPS_UPSINFO &status)
{
    return packet(64, monitor_encode_upsinfo(status));
}

// ---- The listener ----

static int bound_socket(std::uint16_t &port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    socklen_t size = sizeof address;
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size), 0);
    port = ntohs(address.sin_port);
    return fd;
}

std::uint16_t unused_port()
{
    std::uint16_t port = 0;
    close(bound_socket(port));
    return port;
}

FAKE_AGENT::FAKE_AGENT(std::function<void(int fd)> with_script) : script(std::move(with_script))
{
    listener = bound_socket(port);
    EXPECT_EQ(listen(listener, 8), 0);
    thread = std::thread([this] { serve(); });
}

FAKE_AGENT::~FAKE_AGENT()
{
    stopping = true;
    shutdown(listener, SHUT_RDWR);
    drop_connection();
    thread.join();
    close(listener);
}

void FAKE_AGENT::drop_connection()
{
    const std::lock_guard lock(mutex);
    if (client >= 0)
        shutdown(client, SHUT_RDWR);
}

void FAKE_AGENT::serve()
{
    for (;;) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            return;
        {
            const std::lock_guard lock(mutex);
            client = fd;
        }
        ++connections;
        if (!stopping)
            script(fd);
        const std::lock_guard lock(mutex);
        client = -1;
        close(fd);
    }
}

// ---- Pieces of scripts ----

static bool read_exactly(int fd, BYTES &bytes, std::size_t count)
{
    while (count > 0) {
        std::array<std::uint8_t, 512> buffer;
        const ssize_t got = recv(fd, buffer.data(), std::min(count, buffer.size()), 0);
        if (got <= 0)
            return false;
        bytes.insert(bytes.end(), buffer.begin(), buffer.begin() + got);
        count -= static_cast<std::size_t>(got);
    }
    return true;
}

BYTES read_request(int fd)
{
    BYTES bytes;
    if (!read_exactly(fd, bytes, 8))
        return {};
    const auto length = static_cast<std::size_t>(bytes[4] | (bytes[5] << 8));
    if (length < 8 || !read_exactly(fd, bytes, length - 8))
        return {};
    return bytes;
}

bool send_bytes(int fd, std::span<const std::uint8_t> bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        bytes = bytes.subspan(static_cast<std::size_t>(sent));
    }
    return true;
}

void wait_for_end(int fd)
{
    std::array<std::uint8_t, 512> buffer;
    while (recv(fd, buffer.data(), buffer.size(), 0) > 0) {
    }
}

void converse(int fd, const std::function<UPS_UPSINFO()> &status)
{
    for (;;) {
        const BYTES request = read_request(fd);
        if (request.empty())
            return;
        const bool hello = request[3] == 17;
        const BYTES answer = hello ? packet(17, std::span(request).subspan(8)) : status_answer(status());
        if (!send_bytes(fd, answer))
            return;
    }
}
