// The agent with its pipes, and the UPS process's side of them in the test's hands.
#pragma once

#include "agent_daemon_channel.h"
#include "agent_fixture.h"
#include "shared_word.h"

#include <atomic>
#include <cstring>
#include <functional>
#include <sys/wait.h>
#include <thread>

static constexpr std::uint32_t DONE = 1;
static constexpr std::uint32_t FAILED = 0xFFFF;

class ChannelTest : public AgentTest
{
  protected:
    ChannelTest()
    {
        agent.chna2u = {make_pipe(), make_pipe()};
        agent.chnu2a = {make_pipe(), make_pipe()};
        block.ups.ui.ComId = 0;
        // Whatever an earlier test left unread goes with this command.
        reply(UPSCMD_STATUS | DONE);
        EXPECT_EQ(daemon_sendcmdtoups(&agent, UPSCMD_STATUS), 0);
        EXPECT_EQ(words().size(), 1U);
    }

    void reply(std::uint32_t word) const
    {
        EXPECT_EQ(write(agent.chna2u.paspipe[1], &word, sizeof word), 4);
    }

    /// The command words that the UPS process would read now.
    [[nodiscard]] std::vector<std::uint32_t> words() const
    {
        std::vector<std::uint32_t> all;
        while (readable(agent.chna2u.actpipe[0], 0))
            all.push_back(take_word());
        return all;
    }

    [[nodiscard]] std::uint32_t take_word() const
    {
        std::uint32_t word = 0;
        EXPECT_EQ(read(agent.chna2u.actpipe[0], &word, sizeof word), 4);
        return word;
    }

    /// Sends a command while another thread plays the UPS process, which takes the word and acts.
    int send_while(std::uint32_t word, const std::function<void(std::uint32_t)> &act)
    {
        std::jthread ups([&] {
            if (readable(agent.chna2u.actpipe[0]))
                act(take_word());
        });
        return daemon_sendcmdtoups(&agent, word);
    }
};
