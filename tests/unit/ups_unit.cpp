#include "ups_unit.h"

#include "wp_field.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

std::string q1_line(const Q1FIELDS &f)
{
    return "(" + f.input + " 101.0 099.7 " + f.load + " 50.1 " + f.battery + " " + f.temp + " " + f.status +
           "\r";
}

std::string cf_line(const std::vector<std::size_t> &ones)
{
    std::string reply = "00000000 00000000 00000000 00000000    \r";
    for (const std::size_t at : ones)
        reply[at] = '1';
    return reply;
}

void write_config(const std::string &text)
{
    std::FILE *file = std::fopen("/usr/lib/voltaria/config", "w");
    ASSERT_NE(file, nullptr);
    std::fputs(text.c_str(), file);
    std::fclose(file);
}

// ---- the unit

Unit::Unit(std::string device) : device_(std::move(device))
{
    master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(master_, 0);
    EXPECT_EQ(grantpt(master_), 0);
    EXPECT_EQ(unlockpt(master_), 0);
    std::array<char, 64> name{};
    EXPECT_EQ(ptsname_r(master_, name.data(), name.size()), 0);
    terminal_ = name.data();
    holder_ = open(terminal_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(holder_, 0);
    unlink(device_.c_str());
    EXPECT_EQ(symlink(terminal_.c_str(), device_.c_str()), 0) << device_;
    thread_ = std::thread(&Unit::serve, this);
}

Unit::~Unit()
{
    unplug();
    unlink(device_.c_str());
}

void Unit::unplug()
{
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    for (int *fd : {&holder_, &master_}) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
}

void Unit::answer(const std::string &command, std::vector<std::string> replies)
{
    const std::lock_guard lock(mutex_);
    table_[command] = std::move(replies);
}

void Unit::send(const std::string &bytes) const
{
    EXPECT_EQ(write(master_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::vector<std::string> Unit::commands()
{
    const std::lock_guard lock(mutex_);
    return received_;
}

int Unit::count(const std::string &command)
{
    const std::lock_guard lock(mutex_);
    return static_cast<int>(std::count(received_.begin(), received_.end(), command));
}

void Unit::clear()
{
    const std::lock_guard lock(mutex_);
    received_.clear();
}

void Unit::respond(const std::string &command)
{
    const std::lock_guard lock(mutex_);
    received_.push_back(command);
    const auto row = table_.contains(command) ? table_.find(command) : table_.find("");
    if (row == table_.end() || row->second.empty())
        return;
    send(row->second.front());
    if (row->second.size() > 1)
        row->second.erase(row->second.begin());
}

void Unit::serve()
{
    std::string command;
    while (!stop_) {
        pollfd fd{master_, POLLIN, 0};
        if (poll(&fd, 1, 20) <= 0 || (fd.revents & POLLIN) == 0)
            continue;
        char c = 0;
        if (read(master_, &c, 1) != 1)
            continue;
        if (c == '\r') {
            respond(command);
            command.clear();
        } else if (c != '\x11' && c != '\x13') {
            command += c;
        }
    }
}

// ---- the fixture

UpsTest::UpsTest()
{
    record.aip = &block;
    record.agnet.ufd = -1;
    EXPECT_EQ(pipe2(record.chna2u.actpipe.data(), O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(record.chna2u.paspipe.data(), O_CLOEXEC), 0);
    block.ups.ui.ComId = COMID_NONE;
    block.ups.ui.CommStatus = COMM_LOST;
    ups_attach(&record);
    ups_setstartitimer(&upschan.value, &upschan.ovalue);
}

UpsTest::~UpsTest()
{
    ups_closeport();
    for (const int fd : {record.chna2u.actpipe[0], record.chna2u.actpipe[1], record.chna2u.paspipe[0],
                         record.chna2u.paspipe[1]})
        if (fd >= 0)
            close(fd);
}

void UpsTest::script_zr900pl(Unit &unit)
{
    unit.answer("Q1", {q1_line()});
    unit.answer("Si ?", {"ZR900PL\r"});
    unit.answer("CF", {"NAK\r"});
    unit.answer("V", {"00000000\r"});
    unit.answer("Lf ?", {"50.2\r"});
    unit.answer("Bl ?", {"098\r"});
    unit.answer("BRR", {"20050412\r"});
    unit.answer("", {"NAK\r"});
}

void UpsTest::script_zr401(Unit &unit)
{
    unit.answer("Q1", {q1_line()});
    unit.answer("Si ?", {"NAK\r"});
    unit.answer("(SiCC)", {"[ZR401 100V]\r"});
    unit.answer("(BvB8)", {"[27.3V]\r"});
    unit.answer("(Lf ?11)", {"[60.1Hz]\r"});
    unit.answer("", {"NAK\r"});
}

void UpsTest::connect(const std::string &name, int port)
{
    upschan.comid = port;
    block.ups.ui.ComId = static_cast<std::int8_t>(port);
    block.ups.ui.CommStatus = COMM_ESTABLISHED;
    field_set(upschan.ups_model_s, name);
    field_set(upschan.model_lasttime, name);
    field_set(block.ups.ui.upsmodel, name);
    ASSERT_EQ(ups_reopen(&record), 0);
}

std::string UpsTest::model() const
{
    return std::string(field_view(block.ups.ui.upsmodel));
}

bool UpsTest::reply_waiting() const
{
    pollfd fd{record.chna2u.paspipe[0], POLLIN, 0};
    return poll(&fd, 1, 0) == 1;
}

std::uint32_t UpsTest::read_reply() const
{
    std::uint32_t word = 0;
    EXPECT_EQ(read(record.chna2u.paspipe[0], &word, sizeof word), static_cast<ssize_t>(sizeof word));
    return word;
}

void UpsTest::send_word(std::uint32_t word) const
{
    EXPECT_EQ(write(record.chna2u.actpipe[1], &word, sizeof word), static_cast<ssize_t>(sizeof word));
}
