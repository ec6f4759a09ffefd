// The settings file as doctor and notify-test read it, with any content; and none. Every setting that is
// found has a place in the daemon's table, every complaint a line of the file.
#include "control/control_notify.h"
#include "control/control_settings.h"
#include "event_records.h"
#include "fuzz_support.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    static const SETTINGS none = settings_read(SYSTEM{.root = "/nowhere"});
    require(!none.there && none.list.empty(), "what is not there has no settings");
    const auto lines = std::count(text.begin(), text.end(), '\n') + 1;
    const SETTINGS settings = settings_parse(text);
    for (const SETTING &setting : settings.list)
        require(known_section(setting.section) && setting.line >= 1 && setting.line <= lines,
                "a setting's place");
    for (const COMPLAINT &complaint : settings.complaints)
        require(complaint.line >= 1 && complaint.line <= lines && !complaint.text.empty(),
                "a complaint's line");
    require(notify_plan(settings).users.size() <= 32, "no more users than the daemon takes");
    for (int event = 0; event <= 134; ++event)
        require(notify_command(settings, event).size() < sizeof(UPS_EVENTINFO::Command),
                "the length of a command");
    static_cast<void>(notify_patience(settings));
    return 0;
}
