// What the tests of queries and settings share: a monitor whose requests go through the dispatcher to the
// real engine, on the fixed files. What the engine says meanwhile goes through the working buffer in the
// agent; here it spoils the buffer, so that no handler can rely on what lay there.
#pragma once

#include "agent_daemon.h"
#include "agent_daemon_engine.h"
#include "e_a_internal.h"
#include "tests/unit/agent_fixture.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

inline constexpr char CONFIG_PATH[] = "/usr/lib/voltaria/config";
inline constexpr char EVENTLOG_PATH[] = "/usr/lib/voltaria/events.log";
inline constexpr char DATALOG_PATH[] = "/usr/lib/voltaria/data.log";

inline constexpr int JAPANESE = 0x0110;  // Version of a monitor whose texts are Japanese
inline constexpr int ENGLISH = 0x0115;
inline constexpr int OLD = 0x0100;

// The same word on the host and as monitors see it.
inline constexpr std::string_view KANJI_EUC = "\xB4\xC9\xCD\xFD";
inline constexpr std::string_view KANJI_SJIS = "\x8A\xC7\x97\x9D";

extern std::vector<int> callbacks;                // codes that the engine called back with
extern std::function<void(int)> during_callback;  // what happens meanwhile
extern bool host_has_name;                        // uname succeeds
inline constexpr char HOST[] = "host-7";

inline void write_whole(const char *path, std::string_view text)
{
    std::ofstream(path, std::ios::trunc | std::ios::binary) << text;
}

inline std::string config_file()
{
    std::ifstream file(CONFIG_PATH, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Headers without settings. The first setting of a section that does not exist lands above its header, where
/// it is not found: a file in use has them all.
inline std::string sections(std::initializer_list<std::string_view> names)
{
    std::string text;
    for (const std::string_view name : names)
        text += "\n[ " + std::string(name) + " ]\n\n";
    return text;
}

/// The value that the file has for a key, or "-".
inline std::string stored(std::string_view section, std::string_view key)
{
    const std::string text = "\n" + config_file();
    const std::size_t at = text.find("[ " + std::string(section) + " ]");
    if (at == std::string::npos)
        return "-";
    const std::string part = text.substr(at, text.find("\n[", at) - at);
    const std::string wanted = "\n " + std::string(key) + " = ";
    const std::size_t line = part.find(wanted);
    if (line == std::string::npos)
        return "-";
    const std::size_t start = line + wanted.size();
    return part.substr(start, part.find('\n', start) - start);
}

/// The bytes [at, at + count).
inline BYTES part(const BYTES &bytes, std::size_t at, std::size_t count)
{
    if (bytes.size() < at + count) {
        ADD_FAILURE() << bytes.size() << " bytes only";
        return {};
    }
    return {bytes.begin() + static_cast<long>(at), bytes.begin() + static_cast<long>(at + count)};
}

class Served : public AgentTest
{
  protected:
    Served()
    {
        std::filesystem::create_directories("/usr/lib/voltaria");
        for (const char *path : {CONFIG_PATH, EVENTLOG_PATH, DATALOG_PATH})
            std::filesystem::remove_all(path);
        std::filesystem::remove_all("/sbin/shutdown");  // so that a test process outlives its shutdown
        callbacks.clear();
        during_callback = nullptr;
        host_has_name = true;
        engine = ENGINE{};
        ein = UPS_EIN_DATA{};
        eout = UPS_EOUT_DATA{};
        peer = connect_monitor(2);
        client = agent.agnet.clilist;
        client->os = 2;
        block.ups.up.commparam.AgentType = AGENTTYPE_LOW;
        block.ups.ui.CommStatus = COMM_ESTABLISHED;
    }

    /// What the agent does at its start.
    void load(std::string_view config)
    {
        write_whole(CONFIG_PATH, config);
        engine_tables(&agent);
        ASSERT_EQ(engine_call(&agent, E_CMD_INIT, 15), 0);
        callbacks.clear();
    }

    /// Hands a request of the monitor to the dispatcher.
    int ask(const BYTES &request)
    {
        hold(request, client);
        return daemon_procnetmsg(&agent, 1, 1);
    }

    /// One packet of DataId 24 and what is answered.
    BYTES query(int sub, int firstline = 0, int lines = 0, int version = JAPANESE)
    {
        const BYTES data = join({{static_cast<std::uint8_t>(sub), 0}, le16(firstline), le16(lines), le16(0)});
        EXPECT_EQ(ask(packet(24, data, version)), 0);
        return receive(peer, 8);
    }

    void become_protector()
    {
        load("[ UPS ]\n\n AgentType = 1\n");
        ASSERT_EQ(block.ups.up.commparam.AgentType, AGENTTYPE_PROTECTOR);
    }

    int peer = -1;
    NETCLI *client = nullptr;
};

inline BYTES empty_answer(int dataid)
{
    return packet(dataid, {}, JAPANESE, 1);
}
