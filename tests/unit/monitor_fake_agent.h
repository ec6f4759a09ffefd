// A scripted agent on a loopback port of its own, for the tests of the client side.
#pragma once

#include "monitor/monitor.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

using BYTES = std::vector<std::uint8_t>;

/// A status record in which every field has a value of its own; link established, on mains.
UPS_UPSINFO sample_status();

/// A packet as an agent sends it, put together by hand.
BYTES packet(std::uint8_t data_id, std::span<const std::uint8_t> data);

/// A status answer that carries `status`.
BYTES status_answer(const UPS_UPSINFO &status);

// Runs `script` for each connection, one after the other, on a thread of its own. The script gets a blocking
// socket and may return at any time; the connection is then closed.
struct FAKE_AGENT {
    explicit FAKE_AGENT(std::function<void(int fd)> with_script);
    ~FAKE_AGENT();
    FAKE_AGENT(const FAKE_AGENT &) = delete;
    FAKE_AGENT &operator=(const FAKE_AGENT &) = delete;

    /// Ends the connection in hand; the next one is served by the script again.
    void drop_connection();

    std::uint16_t port = 0;
    std::atomic<int> connections = 0;

  private:
    void serve();
    std::function<void(int)> script;
    int listener = -1;
    std::mutex mutex;
    int client = -1;
    std::atomic<bool> stopping = false;
    std::thread thread;
};

/// The next request from the client, header included; empty when it has gone.
BYTES read_request(int fd);
/// Sends everything; false when the client has gone.
bool send_bytes(int fd, std::span<const std::uint8_t> bytes);
/// Waits until the client goes away, answering nothing.
void wait_for_end(int fd);
/// An agent's ordinary conversation: answers hellos and status requests until the client goes away. `status`
/// is asked anew each time.
void converse(int fd, const std::function<UPS_UPSINFO()> &status);
/// A port on which nobody listens.
std::uint16_t unused_port();
