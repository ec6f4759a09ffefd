// Framing: packets out of a TCP stream that may cut them anywhere. A stream that does not look like the
// protocol is given up at its first header, so that a wrong service on the port is not waited for.
#include "monitor.h"

void monitor_stream_feed(MONITOR_STREAM &stream, std::span<const std::uint8_t> bytes)
{
    stream.bytes.insert(stream.bytes.end(), bytes.begin(), bytes.end());
}

static bool sound(const UPS_PACKET_HEAD &head)
{
    return head.Version == PACKET_VERSION && head.Length >= PACKET_HEAD_SIZE &&
           head.Length <= MONITOR_PACKET_MAX;
}

STREAM_STATE monitor_stream_next(MONITOR_STREAM &stream, MONITOR_PACKET &packet)
{
    const std::span<const std::uint8_t> bytes{stream.bytes};
    if (bytes.size() < PACKET_HEAD_SIZE)
        return STREAM_STATE::NeedMore;
    if (!monitor_decode_head(bytes.first(PACKET_HEAD_SIZE), packet.head) || !sound(packet.head))
        return STREAM_STATE::Bad;
    if (bytes.size() < packet.head.Length)
        return STREAM_STATE::Header;
    const auto body = bytes.first(packet.head.Length).subspan(PACKET_HEAD_SIZE);
    packet.data.assign(body.begin(), body.end());
    stream.bytes.erase(stream.bytes.begin(), stream.bytes.begin() + packet.head.Length);
    return STREAM_STATE::Packet;
}
