// Shared parts of the tests of several hosts.
#include "hosts_stage.h"

#include "shared_word.h"

#include <algorithm>
#include <ostream>

namespace bed
{

using testbed::Host;
using testbed::TcpClient;
using testbed::UdpSocket;
using testbed::Visit;

std::string settings(int role, const std::string &group, bool ignores, const std::string &more)
{
    return "[ UPS ]\n\n AgentType = " + std::to_string(role) + "\n Group = " + group +
           "\n IgnoreOtherAgentDown = " + (ignores ? "1" : "0") + "\n" + more + "\n";
}

std::string text_at(std::string_view bytes, std::size_t at, std::size_t width)
{
    const std::string_view text = bytes.substr(at, width);
    return std::string(text.substr(0, text.find('\0')));
}

std::string field(std::string_view text, std::size_t width)
{
    std::string bytes(text);
    bytes.resize(width, '\0');
    return bytes;
}

static int number_at(std::string_view bytes, std::size_t at)
{
    return static_cast<int>(word_at(bytes, at));
}

static Told told_by_protector(std::string_view data)
{
    Told one;
    one.cmd = number_at(data, offsetof(UPS_ANSPROT, cmd));
    one.nt = number_at(data, offsetof(UPS_ANSPROT, NT));
    one.agent = text_at(data, offsetof(UPS_ANSPROT, Agent), 16);
    one.myname = text_at(data, offsetof(UPS_ANSPROT, myname), 16);
    return one;
}

static Told told_by_agent(std::string_view data)
{
    Told one;
    one.cmd = number_at(data, offsetof(UPS_ANSAGENT, cmd));
    one.nt = number_at(data, offsetof(UPS_ANSAGENT, NT));
    one.agent = text_at(data, offsetof(UPS_ANSAGENT, Agent), 16);
    one.model = text_at(data, offsetof(UPS_ANSAGENT, upsmodel), 32);
    one.group = text_at(data, offsetof(UPS_ANSAGENT, Group), 16);
    one.status = static_cast<unsigned char>(data.at(offsetof(UPS_ANSAGENT, UPSStatus)));
    one.role = number_at(data, offsetof(UPS_ANSAGENT, AgentType));
    one.link = number_at(data, offsetof(UPS_ANSAGENT, CommStatus));
    one.ignores = number_at(data, offsetof(UPS_ANSAGENT, bIgnore));
    return one;
}

Told told(const std::string &bytes, const std::string &from)
{
    const std::size_t wanted = bytes.size() < 8                                         ? 0
                               : static_cast<unsigned char>(bytes[3]) == DATAID_ANSPROT ? 48
                                                                                        : 100;
    if (bytes.size() != wanted || word_at(bytes, 4) != wanted)
        throw testbed::TestbedError("no announcement: " + std::to_string(bytes.size()) + " bytes from " +
                                    from);
    const std::string_view data = std::string_view(bytes).substr(8);
    Told one = wanted == 48 ? told_by_protector(data) : told_by_agent(data);
    one.dataid = static_cast<unsigned char>(bytes[3]);
    one.from = from;
    return one;
}

std::ostream &operator<<(std::ostream &out, const Told &one)
{
    return out << "{" << one.from << " DataId " << one.dataid << " cmd " << one.cmd << " nt " << one.nt
               << " agent \"" << one.agent << "\" myname \"" << one.myname << "\" model \"" << one.model
               << "\" group \"" << one.group << "\" status " << one.status << " role " << one.role << " link "
               << one.link << " ignores " << one.ignores << "}";
}

std::unique_ptr<UdpSocket> udp_on(const Host &host, std::uint16_t port)
{
    const Visit visit(host);
    return std::make_unique<UdpSocket>(port);
}

std::unique_ptr<TcpClient> connect_from(const Host &host, const Host &agent)
{
    const Visit visit(host);
    return std::make_unique<TcpClient>(agent.address(), testbed::TCP_PORT, PATIENCE);
}

std::vector<Told> hear_until(const UdpSocket &socket, const Host &from, const std::string &what,
                             const std::function<bool(const Told &)> &predicate)
{
    std::vector<Told> all;
    const auto end = std::chrono::steady_clock::now() + PATIENCE;
    while (std::chrono::steady_clock::now() < end) {
        const auto datagram = socket.receive(500ms);
        if (!datagram || datagram->from != from.address())
            continue;
        all.push_back(told(datagram->bytes, datagram->from));
        if (predicate(all.back()))
            return all;
    }
    throw testbed::TestbedError(from.name() + " did not tell: " + what + "; heard " +
                                testing::PrintToString(all));
}

Watched::Watched(const Host &host) : host_(host)
{
    const Visit visit(host);
    block_ = std::make_unique<testbed::SharedBlock>();
}

void Watched::wait_for_link() const
{
    testbed::wait_until(host_.name() + "'s unit", PATIENCE,
                        [this] { return shared_load((*block_)->ups.ui.CommStatus) == COMM_ESTABLISHED; });
}

void Watched::wait_for_group(const std::string &group) const
{
    testbed::wait_until("the group " + group, PATIENCE,
                        [&] { return group == (*block_)->ups.up.commparam.Group.data(); });
}

bool Watched::shutting_down() const
{
    return shared_load((*block_)->ups.ui.ShutdownS) == 1;
}

void Watched::wait_for_shutdown() const
{
    testbed::wait_until(host_.name() + " to begin its shutdown", PATIENCE,
                        [this] { return shutting_down(); });
}

bool halted(const Host &host)
{
    const Visit visit(host);
    const auto calls = testbed::calls_of("shutdown");
    return calls.size() == 1 && calls[0].path == "/sbin/shutdown" &&
           calls[0].arguments == std::vector<std::string>{"-h", "-t0", "0"};
}

void wait_until_halted(const Host &host)
{
    testbed::wait_until("/sbin/shutdown on " + host.name(), PATIENCE, [&] { return halted(host); });
}

std::vector<int> events_of(const Host &host)
{
    const Visit visit(host);
    const std::string log = testbed::read_file(testbed::EVENT_LOG);
    std::vector<int> all;
    for (std::size_t line = 0; line + 44 <= log.size(); line += 44)
        all.push_back(std::stoi(log.substr(line + 20, 4)));
    return all;
}

void wait_for_event(const Host &host, int id)
{
    testbed::wait_until("event " + std::to_string(id) + " on " + host.name(), PATIENCE, [&] {
        const std::vector<int> all = events_of(host);
        return std::find(all.begin(), all.end(), id) != all.end();
    });
}

std::string inquiry(std::string_view monitor)
{
    return packet(DATAID_INQAGENT, std::string("\0\0\0\0", 4) + field(monitor, 16));
}

Told ask(const Host &monitor, const Host &agent)
{
    const auto socket = udp_on(monitor);
    socket->send(agent.address(), testbed::AGENT_UDP_PORT, inquiry(monitor.name()));
    const auto answer = socket->receive(PATIENCE);
    if (!answer)
        throw testbed::TestbedError(agent.name() + " did not answer " + monitor.name());
    return told(answer->bytes, answer->from);
}

std::string down_order(int delay, std::string_view monitor)
{
    std::string data({22, 0, static_cast<char>(delay & 0xFF), static_cast<char>(delay >> 8), 0, 0, 0, 0});
    return packet(DATAID_SHUTDOWN, data + field(monitor, 16) + field("", 16));
}

}  // namespace bed
