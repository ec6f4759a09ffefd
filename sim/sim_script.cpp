// A command is the longest row of the table whose words begin the line; what follows is read by the row's
// parameters.
#include "sim_script.h"

#include "sim_models.h"

#include <algorithm>

namespace sim
{

using WordSpan = std::span<const Word>;

static bool is_keyword(const Word &word, std::string_view keyword)
{
    return !word.quoted && word.text == keyword;
}

// How many words of the line the row's own words take; 0 when the line is not this command.
static std::size_t words_matched(WordSpan line, std::string_view row_words)
{
    std::size_t matched = 0;
    while (!row_words.empty()) {
        const std::size_t blank = std::min(row_words.find(' '), row_words.size());
        if (matched == line.size() || !is_keyword(line[matched], row_words.substr(0, blank)))
            return 0;
        ++matched;
        row_words.remove_prefix(std::min(blank + 1, row_words.size()));
    }
    return matched;
}

static std::string param_usage(const Param &param)
{
    std::string text = param.kind == ParamKind::on_off ? "on|off" : std::string(param.name);
    if (!param.keyword.empty())
        text += "|" + std::string(param.keyword);
    return param.optional ? "[" + text + "]" : text;
}

std::string command_usage(const Command &command)
{
    std::string text(command.words);
    for (const Param &param : command.params)
        if (param.kind != ParamKind::none)
            text += " " + param_usage(param);
    return text;
}

static bool read_number(const Param &param, const Word &word, Value &value)
{
    const std::optional<double> number = number_of(word.text);
    value.number = number.value_or(0.0);
    return number && *number >= param.least && *number <= param.most;
}

static bool read_duration(const Word &word, Value &value)
{
    const std::optional<Time> duration = duration_of(word.text);
    value.duration = duration.value_or(Time(0));
    return duration.has_value();
}

// Reads one parameter from the words that are left. Returns how many it took; 0 when they do not fit.
static std::size_t read_param(const Param &param, WordSpan rest, Value &value)
{
    const Word &word = rest.front();
    value.given = true;
    value.text = word.text;
    if (!param.keyword.empty() && is_keyword(word, param.keyword) &&
        (rest.size() == 1 || param.kind != ParamKind::text)) {
        value.keyword = true;
        return 1;
    }
    switch (param.kind) {
    case ParamKind::number:
        return read_number(param, word, value) ? 1 : 0;
    case ParamKind::duration:
        return read_duration(word, value) ? 1 : 0;
    case ParamKind::on_off:
        value.on = is_keyword(word, "on");
        return value.on || is_keyword(word, "off") ? 1 : 0;
    case ParamKind::text:
        for (const Word &more : rest.subspan(1))
            value.text += " " + more.text;
        return rest.size();
    case ParamKind::word:
        return word.text.empty() ? 0 : 1;
    case ParamKind::model:
        return find_model(word.text) != nullptr ? 1 : 0;
    case ParamKind::none:
        break;
    }
    return 0;
}

static std::string read_params(const Command &command, WordSpan rest, Values &values)
{
    for (std::size_t i = 0; i < command.params.size(); ++i) {
        const Param &param = command.params[i];
        if (param.kind == ParamKind::none || (rest.empty() && param.optional))
            continue;
        if (rest.empty())
            return "missing " + param_usage(param) + ", usage: " + command_usage(command);
        const std::size_t taken = read_param(param, rest, values[i]);
        if (taken == 0)
            return "bad value '" + escaped(rest.front().text) + "', usage: " + command_usage(command);
        rest = rest.subspan(taken);
    }
    if (!rest.empty())
        return "'" + escaped(rest.front().text) + "' is too much, usage: " + command_usage(command);
    return {};
}

static const Command *longest_match(WordSpan line, std::size_t &matched)
{
    const Command *found = nullptr;
    matched = 0;
    for (const Command &command : commands()) {
        const std::size_t words = words_matched(line, command.words);
        if (words > matched) {
            matched = words;
            found = &command;
        }
    }
    return found;
}

static ParsedCommand parse_words(WordSpan words)
{
    ParsedCommand parsed;
    if (words.empty())
        return parsed;
    std::size_t matched = 0;
    const Command *command = longest_match(words, matched);
    if (command == nullptr) {
        parsed.error = "unknown command '" + escaped(words.front().text) + "'";
        return parsed;
    }
    parsed.error = read_params(*command, words.subspan(matched), parsed.values);
    if (parsed.error.empty())
        parsed.command = command;
    return parsed;
}

// The words as a line again, for the log.
static std::string joined(WordSpan words)
{
    std::string text;
    for (const Word &word : words)
        text += (text.empty() ? "" : " ") + word.text;
    return text;
}

ParsedCommand parse_command(std::string_view line)
{
    Words split = split_words(line);
    ParsedCommand parsed;
    if (!split.error.empty()) {
        parsed.error = split.error;
        return parsed;
    }
    parsed = parse_words(split.words);
    parsed.text = joined(split.words);
    return parsed;
}

// One line of a scenario: appends its step, if it has one, and returns what is wrong with it.
static std::string parse_script_line(std::string_view line, Time &latest, std::vector<ScriptStep> &steps)
{
    const Words split = split_words(line);
    if (!split.error.empty() || split.words.empty())
        return split.error;
    const WordSpan words = split.words;
    const bool relative = is_keyword(words[0], "after");
    if (!relative && !is_keyword(words[0], "at"))
        return "expected 'at TIME COMMAND' or 'after TIME COMMAND'";
    const std::optional<Time> time = words.size() > 1 ? duration_of(words[1].text) : std::nullopt;
    if (!time)
        return "expected a time such as 10s, 1m30s or 500ms";
    if (words.size() == 2)
        return "expected a command after the time";
    ParsedCommand action = parse_words(words.subspan(2));
    if (action.command == nullptr)
        return action.error;
    action.text = joined(words.subspan(2));
    latest = relative ? latest + *time : *time;
    steps.push_back({latest, std::move(action)});
    return {};
}

ParsedScript parse_script(std::string_view text)
{
    ParsedScript parsed;
    Time latest{0};
    for (int number = 1; !text.empty(); ++number) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        const std::string error = parse_script_line(line, latest, parsed.script.steps);
        if (!error.empty()) {
            parsed.error = "line " + std::to_string(number) + ": " + error;
            return parsed;
        }
    }
    std::stable_sort(parsed.script.steps.begin(), parsed.script.steps.end(),
                     [](const ScriptStep &a, const ScriptStep &b) { return a.at < b.at; });
    return parsed;
}

}  // namespace sim
