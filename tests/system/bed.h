// What the system tests share: the programs under test, packets as a monitor sends them, and waiting for the
// link to a simulated UPS.
#pragma once

#include "testbed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

namespace bed
{

using namespace std::chrono_literals;

/// The directory of the programs under test: this build's own, or those of another build whose directory the
/// environment names.
inline const std::string PROGRAMS = [] {
    const char *other = std::getenv("VOLTARIA_PROGRAMS");
    return std::string(other != nullptr ? other : VOLTARIA_PROGRAMS);
}();
inline const std::string VOLTARIAD = PROGRAMS + "/voltariad";
inline const std::string UPSSIM = PROGRAMS + "/upssim";
inline const std::string VOLTARIA = PROGRAMS + "/voltaria";

// Long enough for a loaded machine and a sanitized daemon; nothing waits this long when all is well.
inline constexpr auto PATIENCE = 40s;

// The slowest of many answers where nobody holds the agent up, on such a machine. Somebody who does, holds it
// for 5 s at least.
inline constexpr auto NOT_HELD_UP = 4s;

/// A packet of the monitor protocol.
std::string packet(std::uint8_t dataid, std::string_view data = {}, std::uint8_t prototype = 1,
                   std::uint16_t version = 0x0110);

/// A header that promises `length` bytes in all.
std::string header(std::uint8_t dataid, std::uint32_t length, std::uint8_t prototype = 1);

std::uint32_t word_at(std::string_view bytes, std::size_t at);

/// DataId of a notice, which comes to every monitor at any time.
inline constexpr char NOTICE = 79;

/// The next whole packet.
std::string receive_packet(const testbed::TcpClient &client);
/// The next packet that is no notice.
std::string receive_answer(const testbed::TcpClient &client);

/// Asks for the status over a connection and returns its 220 bytes.
std::string ask_status(const testbed::TcpClient &client);

/// The status as one new connection is told it.
UPS_UPSINFO status();

/// Waits until the status that a monitor is told has this CommStatus.
UPS_UPSINFO wait_for_link(int commstatus, testbed::milliseconds limit = PATIENCE);

/// Waits until the status that a monitor is told satisfies the predicate.
UPS_UPSINFO wait_for_status(const std::string &what,
                            const std::function<bool(const UPS_UPSINFO &)> &predicate,
                            testbed::milliseconds limit = PATIENCE);

std::string model_of(const UPS_UPSINFO &info);

/// How many sockets a process has open.
int socket_count(pid_t pid);

}  // namespace bed
