// Message lookup: the one place that talks to gettext. Called by the start-up and, for every notice, by the
// event engine. gettext translates nothing in the "C" locale and answers in the locale's character set, so
// each lookup runs under a locale of its own: C.UTF-8, which comes with the C library, with the catalogue's
// texts bound to EUC-JP. It holds for this lookup only; where it is missing, messages are in English. The
// process locale stays "C": dates, character classes and the system's error texts must not change with the
// machine.
#include "agent_main_message.h"

#include "agent_daemon_text.h"
#include "wp_strings.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <libintl.h>
#include <string_view>

static constexpr char TEXT_DOMAIN[] = "voltariad";
static constexpr char CATALOGUE_DIR[] = "/usr/lib/voltaria/locale";
static constexpr char HOST_CHARSET[] = "EUC-JP";
static constexpr char LOOKUP_LOCALE[] = "C.UTF-8";
static constexpr char JAPANESE[] = "ja";
static constexpr std::size_t MSG_SIZE = 256;

// The order in which they are set back.
static constexpr std::array<const char *, 4> LANGUAGE_VARIABLES = {"LANG", "LANGUAGE", "KDE_LANG", "LC_ALL"};
using saved_values = std::array<std::array<char, 256>, LANGUAGE_VARIABLES.size()>;

static std::array<char, MSG_SIZE> msg_je{};  // last Japanese message; each lookup overwrites it
static locale_t lookup_locale{};             // made at the first use, kept for good; 0: not made

static void set_variable(const char *name, const char *value)
{
    if (setenv(name, value, 1) != 0)
        perror("GETTEXTj: setenv");
}

static void set_japanese()
{
    for (const char *name : LANGUAGE_VARIABLES)
        set_variable(name, JAPANESE);
}

static void bind_catalogue()
{
    if (bindtextdomain(TEXT_DOMAIN, CATALOGUE_DIR) == nullptr ||
        bind_textdomain_codeset(TEXT_DOMAIN, HOST_CHARSET) == nullptr || textdomain(TEXT_DOMAIN) == nullptr)
        perror("GETTEXTj: textdomain");
}

static void make_lookup_locale()
{
    if (lookup_locale != locale_t{})
        return;
    lookup_locale = newlocale(LC_MESSAGES_MASK, LOOKUP_LOCALE, locale_t{});
    if (lookup_locale == locale_t{})
        perror("GETTEXTj: newlocale");
}

void message_start()
{
    set_japanese();
    bind_catalogue();
    make_lookup_locale();
}

// A variable that is not set is saved as empty and comes back so; programs the daemon starts see that.
static void save_variables(saved_values &saved)
{
    for (std::size_t i = 0; i < saved.size(); ++i) {
        saved[i].fill('\0');
        wp_strncpy(saved[i].data(), getenv(LANGUAGE_VARIABLES[i]), saved[i].size() - 1);
    }
}

static void restore_variables(const saved_values &saved)
{
    for (std::size_t i = 0; i < saved.size(); ++i)
        set_variable(LANGUAGE_VARIABLES[i], saved[i].data());
}

// An untranslated id may be the buffer itself, hence the overlapping copy.
static void keep_message(std::string_view text)
{
    const std::size_t length = text_fit(text, MSG_SIZE - 1, CODE_EUC);
    std::copy_n(text.begin(), length, msg_je.begin());
    msg_je[length] = '\0';
}

// The empty id stands for the catalogue's header, which is no message.
static void look_up(const char *msgid)
{
    if (wp_isnull(msgid)) {
        keep_message({});
        return;
    }
    make_lookup_locale();
    const locale_t before = lookup_locale != locale_t{} ? uselocale(lookup_locale) : locale_t{};
    keep_message(gettext(msgid));
    if (before != locale_t{})
        uselocale(before);
}

const char *GETTEXTj(const char *msgid)
{
    saved_values saved;
    save_variables(saved);
    set_japanese();
    bind_catalogue();
    look_up(msgid);
    restore_variables(saved);
    bind_catalogue();
    return msg_je.data();
}

const char *GETTEXTe(const char *msgid)
{
    return msgid;
}
