// What this agent tells of itself, to all by announcements and to one monitor that inquires: the two records
// and the texts in them. Only the two modules that send them include this.
#pragma once

#include "agent_daemon_text.h"
#include "agent_wire.h"
#include "wp_field.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

inline constexpr std::uint32_t ANSAGENT_LENGTH = PACKET_HEAD_SIZE + sizeof(UPS_ANSAGENT);
inline constexpr std::uint32_t ANSPROT_LENGTH = PACKET_HEAD_SIZE + sizeof(UPS_ANSPROT);
inline constexpr std::uint32_t AGENTTYPE_UNSET = 0;
inline constexpr std::int32_t NT_AGENT = 2;
inline constexpr std::int32_t NT_PROTECTOR_DOWN = 1;

// The wire's 16- and 32-character text fields.
typedef std::array<char, 16> NAME16;
typedef std::array<char, 32> NAME32;

// The texts of a UPS_ANSAGENT, which its senders do not fill alike.
typedef struct _AGENTTEXTS {
    NAME16 name;
    NAME16 group;
    NAME32 model;
} AGENTTEXTS;

/// A host-side text as a field of a packet, as it stands; whole characters that do not fit are left out.
template <std::size_t N> [[nodiscard]] NAME16 name_asitis(const std::array<char, N> &text)
{
    const std::string_view all = field_view(text);
    NAME16 name;
    field_set(name, all.substr(0, text_fit(all, name.size() - 1, CODE_EUC)));
    return name;
}

/// The same in the encoding of the network; `mode` as in JConvForDataOutToNetwork.
template <std::size_t N> [[nodiscard]] NAME16 name_fornetwork(const std::array<char, N> &text, int mode)
{
    NAME16 name{};
    JConvForDataOutToNetwork(field_view(text), name, mode);
    return name;
}

/// This host's node name, at most 15 characters of it; `cut` ends it at its first ".".
enum class NODENAME { whole, cut };
[[nodiscard]] NAME16 node_name(NODENAME form);

/// The model of the unit in capitals.
[[nodiscard]] NAME32 upper_model(const UPS_UPSINFO &info);

/// Fills the zeroed data of a UPS_ANSAGENT packet. `info` is what to tell of the unit.
void record_putagent(WIREBYTES data, NSCommands cmd, const UPS_UPSINFO &info, const UPS_COMMPARAM &settings,
                     const AGENTTEXTS &texts);

/// Fills the zeroed data of a UPS_ANSPROT packet.
void record_putprotector(WIREBYTES data, NSCommands cmd, std::int32_t nt, const UPS_COMMPARAM &settings,
                         NODENAME form);
