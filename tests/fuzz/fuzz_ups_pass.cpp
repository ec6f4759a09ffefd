// Status passes over a line that brings any bytes: the input is everything the unit ever says, then it hangs
// up. The first two bytes choose the model and the state of the line. The record never shows a code that does
// not exist, whatever came.
#include "agent_ups_internal.h"
#include "fuzz_support.h"
#include "wp_field.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

// Pauses without descriptors take no time here; all else waits as ever.
extern "C" int select(int n, fd_set *reads, fd_set *writes, fd_set *errors, timeval *timeout)
{
    if (n == 0)
        return 0;
    const timespec limit{timeout->tv_sec, timeout->tv_usec * 1000};
    return pselect(n, reads, writes, errors, &limit, nullptr);
}

template <std::size_t N> static bool one_of(int value, const std::array<int, N> &values)
{
    return std::find(values.begin(), values.end(), value) != values.end();
}

static void check_record(const UPS_UPSINFO &ui)
{
    const UPSDATA &d = ui.upsdata;
    require(one_of(ui.upsstat, std::array{0, 3, 16, 20, 21, 33}));
    require(one_of(ui.BattStatus, std::array{0, 1, 5, 18, 19, 34}));
    require(d.InPutINT >= 0 && d.InPutINT <= 999 && d.InPutREM >= 0 && d.InPutREM <= 9);
    require(d.FreqOutputINT >= 0 && d.FreqOutputREM >= 0 && d.BattCap >= 0);
    require(ui.iDetectionLvl >= 0 && ui.iDetectionLvl <= 4);
    require(field_view(ui.upsmodel).size() < ui.upsmodel.size());
}

// The line is looked at before anything else, as when the agent asks for the battery's date.
static void look_first(AGENT &record)
{
    if (verify_commlost(&record) == 0)
        static_cast<void>(ups_getbattchgtimeforcmd(&record));
    check_record(record.aip->ups.ui);
}

static void hear_out(AGENT &record)
{
    for (int passes = 0; passes < 8 && upschan.comfd >= 0; ++passes) {
        if (ups_getupsstatus(&record) == 0)
            ups_established();
        check_record(record.aip->ups.ui);
    }
    look_first(record);
    ups_lostcomm(&record);
    check_record(record.aip->ups.ui);
    ups_comnone(&record);
    check_record(record.aip->ups.ui);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static constexpr std::array<const char *, 6> models{"", "ZR900PL", "ZR401", "ZM500", "ZQ300", "ZR800"};
    static AGENT record{};
    std::array<int, 2> line{};
    if (size < 2 || size > 8192 || socketpair(AF_UNIX, SOCK_STREAM, 0, line.data()) < 0)
        return 0;
    AGINFO block{};
    record.aip = &block;
    ups_attach(&record);
    block.ups.ui.CommStatus = (data[1] & 1) != 0 ? COMM_ESTABLISHED : COMM_LOST;
    upschan.cf = upschan.cmd = (data[1] & 2) != 0 ? CAPABILITY{1, 1, 1, 1, 1, 1, 1} : CAPABILITY{};
    upschan.bSendTestCmd = (data[1] & 4) != 0 ? 1 : 0;
    upschan.beBattTest = (data[1] & 16) != 0 ? 1 : 0;
    upschan.lasttest = (data[1] & 64) != 0 ? 1 : 0;
    block.ups.up.workparam.ComSet = (data[1] & 32) != 0 ? COMSET_NOUPS : 0;
    upschan.modelknown = 1;
    field_set(block.ups.ui.upsmodel, models[data[0] % models.size()]);
    upschan.comfd = line[0];
    if (write(line[1], data + 2, size - 2) == static_cast<ssize_t>(size - 2) &&
        shutdown(line[1], SHUT_WR) == 0) {
        if ((data[1] & 8) != 0)
            look_first(record);
        hear_out(record);
    }
    ups_closeport();
    close(line[1]);
    return 0;
}
