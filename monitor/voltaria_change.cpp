// Sessions, questions and looking afterwards, for the commands that change something.
#include "voltaria_change.h"

#include <arpa/inet.h>
#include <array>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>

static constexpr std::chrono::milliseconds LOOK_AGAIN{200};

int with_session(const CONNECTION &connection, const std::function<int(MONITOR_SESSION &)> &work)
{
    MONITOR_SESSION session;
    const MONITOR_RESULT result = open_session(connection, session);
    if (!monitor_ok(result))
        return fail(result);
    const int status = work(session);
    monitor_close(session);
    return status;
}

std::string agent_name(const CONNECTION &connection, const MONITOR_SESSION &session)
{
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    std::array<char, INET_ADDRSTRLEN> text{};
    if (getpeername(session.fd, reinterpret_cast<sockaddr *>(&peer), &size) != 0 ||
        inet_ntop(AF_INET, &peer.sin_addr, text.data(), text.size()) == nullptr)
        return connection.host;
    const std::string address = text.data();
    return address == connection.host ? address : connection.host + " (" + address + ")";
}

bool agreed(bool yes, const std::string &question)
{
    if (yes || ask_yes(question))
        return true;
    static_cast<void>(fail("nothing was sent"));
    return false;
}

MONITOR_RESULT protector_result()
{
    return {MONITOR_ERROR::BadAnswer, "this agent keeps no such settings: it is a protector, without a UPS"};
}

MONITOR_RESULT told_nothing(MONITOR_SESSION &session)
{
    UPS_UPSINFO status{};
    MONITOR_RESULT result = monitor_status(session, status);
    if (!monitor_ok(result))
        return result;
    if (status.AgentType == AGENTTYPE_PROTECTOR)
        return protector_result();
    return {MONITOR_ERROR::BadAnswer, "the agent told no settings: it cannot read them now"};
}

MONITOR_RESULT after_sending(MONITOR_RESULT result)
{
    if (!monitor_ok(result))
        result.text = "sent, but " + result.text;
    return result;
}

MONITOR_RESULT write_and_read_back(const std::function<MONITOR_RESULT()> &write,
                                   const std::function<MONITOR_RESULT()> &read_back,
                                   const std::function<bool()> &found, bool &taken)
{
    taken = false;
    for (int attempt = 0; attempt < 2 && !taken; attempt++) {
        MONITOR_RESULT result = write();
        if (monitor_ok(result))
            result = after_sending(read_back());
        if (!monitor_ok(result))
            return result;
        taken = found();
    }
    return {};
}

MONITOR_RESULT wait_for_status(MONITOR_SESSION &session,
                               const std::function<bool(const UPS_UPSINFO &)> &shows, UPS_UPSINFO &status,
                               bool &seen)
{
    const auto deadline = std::chrono::steady_clock::now() + session.timeout;
    for (;;) {
        MONITOR_RESULT result = after_sending(monitor_status(session, status));
        seen = monitor_ok(result) && shows(status);
        if (!monitor_ok(result) || seen || std::chrono::steady_clock::now() >= deadline)
            return result;
        std::this_thread::sleep_for(LOOK_AGAIN);
    }
}

void remark(const std::string &text)
{
    static_cast<void>(fail("note: " + text));
}
