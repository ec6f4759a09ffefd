// The engine's error buffer. Every failure inside the engine is composed here and handed to Ea_log.
#pragma once

#include <array>
#include <string_view>

inline constexpr std::size_t ERRBUFFER_SIZE = 200;

extern std::array<char, ERRBUFFER_SIZE> errbuffer;

/// Composes `message` in `errbuffer`, cut to fit, and hands it to Ea_log.
void ea_error(std::string_view message);

/// Takes the message in `errbuffer`. Records nothing: the agent keeps no error log.
void Ea_log();
