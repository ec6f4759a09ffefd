// The process-wide record of the daemon. There is one, `agent`, defined in agent_main.cpp; after the
// fork each process has its own copy and keeps its own ends of the pipes.
#pragma once

#include "aginfo.h"
#include "event_records.h"
#include "schedule_records.h"

#include <array>
#include <cstdint>
#include <netinet/in.h>
#include <sys/types.h>

inline constexpr char INSTALL_DIR[] = "/usr/lib/voltaria/";

// Two pipes between the processes; [0] is the read end, [1] the write end, -1 when closed.
typedef struct _chnpair {
    std::array<int, 2> actpipe;  // requests of the side that starts the exchange
    std::array<int, 2> paspipe;  // answers of the other side
} chnpair;

// One TCP listener, bound to one local address.
typedef struct _NETSERV {
    struct _NETSERV *next;
    std::int32_t tcpfd;
    sockaddr_in addr;
    std::array<char, 32> addrstr;
} NETSERV;

// One connected monitor.
typedef struct _NETCLI {
    struct _NETCLI *next;
    std::int32_t sockfd;  // -1: free slot
    sockaddr_in addr;
    std::int32_t auth;  // right granted by the last login
    std::int32_t os;
    std::int32_t lang;
    std::array<char, 32> addrstr;
} NETCLI, *NETCLIP;

typedef struct _NETINFO {
    std::int32_t ufd;   // UDP socket
    sockaddr_in uaddr;  // last UDP sender
    NETSERV *tfdlist;   // listeners
    NETCLI cnc;         // sockfd, addr, os, lang of the client whose packet is in hand
    NETCLI *clilist;    // connected monitors; null when there are none
} NETINFO;

typedef struct _AGENT {
    chnpair chna2u;  // agent asks, UPS process answers
    chnpair chnu2a;  // UPS process asks, agent answers
    key_t key;
    std::int32_t shmid;  // -1 until created
    NETINFO agnet;
    AGINFO *aip;  // null until attached
    SCHEDULELIST *sl;
    std::array<UPS_EVENTINFO, EVENT_TABLE_SIZE> el;
    std::array<USERSDATA, USER_COUNT> us;
    std::int32_t nusers;
} AGENT;

extern AGENT agent;
