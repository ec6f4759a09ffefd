// Logins of monitors: a name and a password of this host's own accounts. Nothing here keeps either for longer
// than the check takes, and nothing tells them to anybody but the account database.
#include "agent_daemon_requests.h"

#include "agent_daemon_buffer.h"
#include "agent_daemon_clients.h"
#include "agent_net.h"
#include "filehandle.h"

#include <array>
#include <crypt.h>
#include <cstring>
#include <new>
#include <pwd.h>
#include <shadow.h>
#include <string>
#include <sys/stat.h>

static constexpr std::uint32_t PASSWORD_LENGTH = PACKET_HEAD_SIZE + sizeof(UPS_PASSWORD);
static constexpr std::uint32_t RIGHT_LENGTH = PACKET_HEAD_SIZE + sizeof(std::uint32_t);

static constexpr std::int32_t RIGHT_OWNER = 1;  // of the settings
static constexpr std::int32_t RIGHT_USER = 2;
static constexpr std::int32_t RIGHT_REFUSED = 4;

// What was sent, each text with room for the NUL that it may lack.
typedef struct _CREDENTIALS {
    std::array<char, sizeof(UPS_PASSWORD::username) + 1> username;
    std::array<char, sizeof(UPS_PASSWORD::password) + 1> password;
} CREDENTIALS;

static CREDENTIALS credentials_from_packet()
{
    const WIREVIEW data = packet_data();
    CREDENTIALS given{};
    std::memcpy(given.username.data(), data.data(), sizeof(UPS_PASSWORD::username));
    std::memcpy(given.password.data(), data.data() + offsetof(UPS_PASSWORD, password),
                sizeof(UPS_PASSWORD::password));
    return given;
}

// Where a hash cannot be made there is no result, or one that begins with "*", which no hash does.
static bool password_matches(const char *given, const std::string &stored)
{
    if (stored.empty())
        return given[0] == '\0';
    const char *made = crypt(given, stored.c_str());
    return made != nullptr && made[0] != '*' && std::strcmp(made, stored.c_str()) == 0;
}

// Who owns the settings may change them.
static std::int32_t right_of_user(uid_t user)
{
    struct stat settings = {};
    if (stat(CONFIG_FILE, &settings) == -1)
        return RIGHT_REFUSED;
    return settings.st_uid == user ? RIGHT_OWNER : RIGHT_USER;
}

static std::int32_t right_of(const CREDENTIALS &given)
{
    setpwent();
    const passwd *account = getpwnam(given.username.data());
    if (account == nullptr)
        return RIGHT_REFUSED;
    const uid_t user = account->pw_uid;
    std::string stored = account->pw_passwd != nullptr ? account->pw_passwd : "";
    if (const spwd *shadow = getspnam(given.username.data()); shadow != nullptr)
        stored = shadow->sp_pwdp != nullptr ? shadow->sp_pwdp : "";
    return password_matches(given.password.data(), stored) ? right_of_user(user) : RIGHT_REFUSED;
}

// The account database is left closed: no descriptor stays open, and the next login reads it afresh.
static std::int32_t check_credentials()
{
    CREDENTIALS given = credentials_from_packet();
    std::int32_t right = RIGHT_REFUSED;
    try {
        right = right_of(given);
    } catch (const std::bad_alloc &) {
        right = RIGHT_REFUSED;  // what cannot be checked is not let in
    }
    endspent();
    endpwent();
    explicit_bzero(&given, sizeof given);
    return right;
}

static int daemon_anspassword(AGENT *ag, std::int32_t right)
{
    const WIREBYTES data = packet_answer(ag, DATAID_ANSPASSWORD, RIGHT_LENGTH);
    if (data.empty())
        return -1;
    wire_put32(data, 0, static_cast<std::uint32_t>(right));
    return net_sendpacketout(ag);
}

// Takes the clear text out of the working buffer, whatever the packet was.
static void wipe_packet()
{
    const WIREBYTES data = packet_data();
    explicit_bzero(data.data(), data.size());
}

// A datagram is not even looked at: there is nobody to store a right for and no way to answer, and hashing
// for it would let a flood of them stop the agent.
int daemon_password(AGENT *ag, int fromtcp)
{
    if (packet_head().Length != PASSWORD_LENGTH || fromtcp == 0) {
        wipe_packet();
        return -1;
    }
    const std::int32_t right = check_credentials();
    wipe_packet();
    const UPS_CLIADDR origin = packet_origin();
    NETCLI *client = client_bypeer(&ag->agnet, origin.sockfd, origin.addr);
    // A failed attempt takes nothing away.
    if (client != nullptr && right != RIGHT_REFUSED)
        client->auth = right;
    return daemon_anspassword(ag, right);
}
