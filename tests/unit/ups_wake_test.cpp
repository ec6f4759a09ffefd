// Waking the agent process: when, with what already stored, and at which cost.
#include "ups_unit.h"

#include "shared_word.h"
#include "wire_records.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

// What the shared block showed at the moment of each datagram.
struct SEEN {
    std::uint32_t mask;
    std::int8_t commstatus;
    std::int8_t upsstat;
    std::int16_t input;
    std::size_t bytes;
    int flags;
};
static std::vector<SEEN> sent;

extern "C" ssize_t sendto(int fd, const void *bytes, std::size_t size, int flags, const sockaddr *to,
                          socklen_t tosize)
{
    const UPS &ups = upschan.aip->ups;
    sent.push_back(
        {shared_load(ups.upsstat), ups.ui.CommStatus, ups.ui.upsstat, ups.ui.upsdata.InPutINT, size, flags});
    return syscall(SYS_sendto, fd, bytes, size, flags, to, tosize);
}

class UpsWake : public UpsTest
{
  protected:
    UpsWake()
    {
        sent.clear();
        ups_openwake();
        agentport = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_port = htons(PORT_UDP);
        EXPECT_EQ(bind(agentport, reinterpret_cast<const sockaddr *>(&local), sizeof local), 0);
        script_zr900pl(unit);
    }
    ~UpsWake() override
    {
        close(agentport);
        close(upschan.wakefd);
    }

    void pass(const std::string &status)
    {
        Q1FIELDS fields;
        fields.status = status;
        fields.input = "012.3";
        unit.answer("Q1", {q1_line(fields)});
        EXPECT_EQ(ups_getupsstatus(&record), 0);
    }

    // Whether the agent's port has a datagram, which must be an empty one.
    bool woken() const
    {
        pollfd fd{agentport, POLLIN, 0};
        if (poll(&fd, 1, 0) != 1)
            return false;
        std::array<char, 16> bytes{};
        EXPECT_EQ(recv(agentport, bytes.data(), bytes.size(), 0), 0);
        return true;
    }

    int agentport = -1;
    Unit unit{"/dev/ttyS0"};
};

TEST_F(UpsWake, OnlyASocketThatCannotBeHadIsReported)
{
    close(upschan.wakefd);
    testing::internal::CaptureStderr();
    ups_openwake();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_GE(upschan.wakefd, 0);
}

TEST_F(UpsWake, MainsFailureWakesTheAgentOnceEverythingIsStored)
{
    connect("ZR900PL");
    pass("00000000");
    sent.clear();
    pass("10000000");
    EXPECT_TRUE(woken());
    EXPECT_FALSE(woken());
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].mask, UPSBIT_ACFAIL);
    EXPECT_EQ(sent[0].upsstat, UPSSTAT_ACFAIL);
    EXPECT_EQ(sent[0].input, 12);
    EXPECT_EQ(sent[0].bytes, 0U);
    EXPECT_EQ(sent[0].flags, MSG_DONTWAIT | MSG_NOSIGNAL);
}

TEST_F(UpsWake, EndOfAMainsFailureWakesTheAgentToo)
{
    connect("ZR900PL");
    pass("10000000");
    EXPECT_TRUE(woken());
    pass("00000000");
    EXPECT_TRUE(woken());
}

TEST_F(UpsWake, UnchangedWordWakesNobody)
{
    connect("ZR900PL");
    pass("10000000");
    sent.clear();
    pass("10000000");
    ups_setmask(ups_getmask());
    EXPECT_TRUE(sent.empty());
}

TEST_F(UpsWake, NobodyIsWokenWhileTheLineIsNotEstablished)
{
    connect("ZR900PL");
    ui().CommStatus = COMM_LOST;
    pass("10000000");
    mask() |= UPSBIT_TESTING;
    ups_lostcomm(&record);
    ups_comnone(&record);
    EXPECT_TRUE(sent.empty());
}

TEST_F(UpsWake, LineThatIsEstablishedWithBitsWakesTheAgent)
{
    connect("ZR900PL");
    ui().CommStatus = COMM_LOST;
    pass("10000000");
    ups_established();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].commstatus, COMM_ESTABLISHED);
    EXPECT_EQ(sent[0].mask, UPSBIT_ACFAIL);
    EXPECT_TRUE(woken());
}

TEST_F(UpsWake, AgentWithoutPortChangesNothing)
{
    connect("ZR900PL");
    close(agentport);
    for (const char *status : {"10000000", "00000000", "10000000"})
        pass(status);
    EXPECT_EQ(mask(), UPSBIT_ACFAIL);
    EXPECT_EQ(sent.size(), 3U);
    agentport = -1;
}

TEST_F(UpsWake, AgentThatDoesNotReadHoldsNobodyUp)
{
    connect("ZR900PL");
    for (std::uint32_t i = 1; i <= 20000; ++i)
        ups_setmask(i);
    EXPECT_EQ(sent.size(), 20000U);
    EXPECT_TRUE(woken());
}

TEST_F(UpsWake, WithoutSocketNothingIsSent)
{
    connect("ZR900PL");
    close(upschan.wakefd);
    upschan.wakefd = -1;
    pass("10000000");
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(mask(), UPSBIT_ACFAIL);
}

TEST_F(UpsWake, SocketIsClosedOnExec)
{
    EXPECT_EQ(fcntl(upschan.wakefd, F_GETFD), FD_CLOEXEC);
}
