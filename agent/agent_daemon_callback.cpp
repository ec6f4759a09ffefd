// Event_CallBack: the one way by which the event engine reaches monitors, other agents and the UPS process.
#include "agent_daemon_buffer.h"
#include "agent_daemon_channel.h"
#include "agent_net.h"
#include "agent_net_announce.h"
#include "e_a.h"
#include "shared_word.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <string_view>

static constexpr std::int32_t SELFTEST_SECONDS = 10;  // when the engine names no length

// Codes that are nothing but one command word.
typedef struct _PLAINCOMMAND {
    std::int32_t code;
    std::uint32_t word;
} PLAINCOMMAND;

static constexpr std::array PLAIN_COMMANDS = {
    PLAINCOMMAND{E_CB_CANCELDOWN, UPSCMD_CANCELDOWN},
    PLAINCOMMAND{E_CB_SELFTEST_CANCEL, UPSCMD_SELFTEST_CANCEL},
    PLAINCOMMAND{E_CB_BUZZER_ON, UPSCMD_BUZZER_ON},
    PLAINCOMMAND{E_CB_BUZZER_OFF, UPSCMD_BUZZER_OFF},
    PLAINCOMMAND{E_CB_AUTOTEST_ON, UPSCMD_AR},
    PLAINCOMMAND{E_CB_AUTOTEST_OFF, UPSCMD_AC},
    PLAINCOMMAND{E_CB_AUTOREBOOT_ON, UPSCMD_AUTORESTART_ON},
    PLAINCOMMAND{E_CB_AUTOREBOOT_OFF, UPSCMD_AUTORESTART_OFF},
    PLAINCOMMAND{E_CB_BUZZER_TEST, UPSCMD_BUZZER_TEST},
};

// Detection levels 1 to 4: the voltage word, then the sensitivity word if the first succeeded.
static constexpr std::array<std::array<std::uint32_t, 2>, 4> LEVEL_COMMANDS = {{
    {UPSCMD_LEVEL_A, UPSCMD_LEVEL_L},
    {UPSCMD_LEVEL_B, UPSCMD_LEVEL_L},
    {UPSCMD_LEVEL_A, UPSCMD_LEVEL_H},
    {UPSCMD_LEVEL_B, UPSCMD_LEVEL_H},
}};

static int send_with_argument(std::uint32_t word, std::span<const std::uint8_t> argument)
{
    AUMSG &message = agent.aip->ba2u;
    message.msglen = static_cast<std::int32_t>(argument.size());
    message.msgseqno = 1;
    message.msgremained = 0;
    std::copy(argument.begin(), argument.end(), message.buf.begin());
    return daemon_sendcmdtoups(&agent, word);
}

static int send_upsdown(std::int32_t delay, std::int32_t last)
{
    std::array<std::uint8_t, sizeof(UPSDOWNARG)> argument;
    wire_put32(argument, offsetof(UPSDOWNARG, downdelay), static_cast<std::uint32_t>(delay));
    wire_put32(argument, offsetof(UPSDOWNARG, downlast), static_cast<std::uint32_t>(last));
    return send_with_argument(UPSCMD_SHUTDOWN, argument);
}

// The oldest models run their plain self-test for either word and want its length.
static int send_selftest(std::uint32_t word, std::int32_t length)
{
    std::array<std::uint8_t, sizeof length> argument;
    wire_put32(argument, 0, static_cast<std::uint32_t>(length == 0 ? SELFTEST_SECONDS : length));
    return send_with_argument(word, argument);
}

static int send_setbattime(const void *date)
{
    if (date == nullptr)
        return -1;
    return send_with_argument(UPSCMD_SETBATTIME,
                              {static_cast<const std::uint8_t *>(date), sizeof(BATTCHGTIME)});
}

static int read_battime(BATTCHGTIME *date)
{
    if (date == nullptr || daemon_sendcmdtoups(&agent, UPSCMD_GETBATTIME) == -1)
        return -1;
    const UPS_UPSINFO info = shared_copy(agent.aip->ups.ui);
    date->uBattStatus = static_cast<std::uint32_t>(static_cast<std::int32_t>(info.BattStatus));
    date->BattTime.year = info.PreChangeBatt.year;
    date->BattTime.month = info.PreChangeBatt.month;
    date->BattTime.day = info.PreChangeBatt.day;
    return 0;
}

static int send_level(std::int32_t level)
{
    if (level == 0)
        return 0;
    if (level < 0 || level > static_cast<std::int32_t>(LEVEL_COMMANDS.size()))
        return -1;
    const auto &words = LEVEL_COMMANDS[static_cast<std::size_t>(level - 1)];
    if (daemon_sendcmdtoups(&agent, words[0]) == -1)
        return -1;
    return daemon_sendcmdtoups(&agent, words[1]);
}

static int send_message(const char *text, int lang)
{
    const std::string_view bytes = text == nullptr ? std::string_view{} : text;
    const auto length = static_cast<std::uint32_t>(PACKET_HEAD_SIZE + bytes.size());
    // Room for a NUL behind the text, which is not counted.
    if (daemon_reallocbuf(length + 1) == -1)
        return -1;
    const WIREBYTES data = packet_answer(&agent, DATAID_MESSAGE, length);
    std::copy(bytes.begin(), bytes.end(), data.begin());
    packet_bytes()[length] = 0;
    return sendpacketout_msg(&agent, lang);
}

static int send_final_message(const char *text, int lang)
{
    const int result = send_message(text, lang);
    if (result == 0)
        net_broadcastdown(&agent);
    return result;
}

int Event_CallBack(int code, void *data, int arg, int value)
{
    const auto *plain = std::find_if(PLAIN_COMMANDS.begin(), PLAIN_COMMANDS.end(),
                                     [code](const PLAINCOMMAND &row) { return row.code == code; });
    if (plain != PLAIN_COMMANDS.end())
        return daemon_sendcmdtoups(&agent, plain->word);
    switch (code) {
    case E_CB_NOTHING:
        return 0;
    case E_CB_MESSAGE:
        return send_message(static_cast<const char *>(data), arg);
    case E_CB_UPSDOWN:
        return send_upsdown(arg, value);
    case E_CB_SELFTEST:
        return send_selftest(UPSCMD_SELFTEST, value);
    case E_CB_SELFTEST_LONG:
        return send_selftest(UPSCMD_SELFTEST_LONG, 0);
    case E_CB_SETBATTIME:
        return send_setbattime(data);
    case E_CB_GETBATTIME:
        return read_battime(static_cast<BATTCHGTIME *>(data));
    case E_CB_TIMEISUP:
        return send_final_message(static_cast<const char *>(data), arg);
    case E_CB_STATUSCHANGED:
    case E_CB_SETTINGSCHANGED:
        return net_announce(&agent);
    case E_CB_GROUPCHANGED:
        return net_broadcastdown2monitor(&agent);
    case E_CB_DETECTIONLVL:
        return send_level(value);
    default:
        return -1;
    }
}
