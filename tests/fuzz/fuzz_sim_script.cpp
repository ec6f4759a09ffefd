// Any text as a scenario and as lines of the control channel. Whatever is written, the simulator answers each
// line with one of its forms, keeps running, and its escapes are read back the same.
#include "fuzz_support.h"
#include "sim/sim.h"

#include <cstdint>

static void check_escapes(std::string_view text)
{
    const sim::Words words = sim::split_words("\"" + sim::escaped(text) + "\"");
    require(words.error.empty() && words.words.size() == 1 && words.words[0].text == text);
}

static void check_scenario(std::string_view text)
{
    sim::Sim simulation = sim::sim_new(sim::models()[2], 1);
    simulation.script = sim::parse_script(text).script;
    for (const sim::ScriptStep &step : simulation.script.steps)
        require(step.action.command != nullptr && step.at >= sim::Time(0));
    sim::sim_run(simulation, std::chrono::seconds(2));
}

static void check_lines(std::string_view text)
{
    sim::Sim simulation = sim::sim_new(sim::models()[0], 1);
    sim::Time now{0};
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        const std::string answer = sim::sim_command(simulation, now, text.substr(0, end));
        require(answer.empty() || answer == "ok" || answer.ends_with("\nok") ||
                answer.starts_with("error: ") || (answer.starts_with('{') && answer.ends_with('}')));
        text.remove_prefix(std::min(end + 1, text.size()));
        sim::sim_from_host(simulation, now, "Q1\rV\r");
        now += std::chrono::milliseconds(300);
        sim::sim_run(simulation, now);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size > 4096)
        return 0;
    const std::string_view text(reinterpret_cast<const char *>(data), size);
    check_escapes(text);
    check_scenario(text);
    check_lines(text);
    return 0;
}
