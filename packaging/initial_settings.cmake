# Writes the initial settings file, packaging/config in the build directory: what config.in has, and behind it the
# sections of events and users. Every section that the daemon can ever write is in it, and every key with its default:
# the first key of a section that is not there lands above its header, where it is not found, so a monitor's first save
# would be lost. The keys ChangeBattTime, UPSModel and AgentName say something by being there and are left out.

# In the order in which the daemon keeps the events. On terminals everybody is told of the second group, nobody of the
# rest.
set(shutting_down 128 129 130 131 132 133 134)
set(told_to_everybody 65 74 75 76 79 80 0 48 49 50 51 52 53 ${shutting_down})
set(events_in_order ${shutting_down} 64 65 66 67 68 69 70 71 72 73 74 75 76 77 78 79 80
                    0 1 2 3 4 5 6 7 8 9 10 11 12 13 15 14 16 17 18 19 20 21 22 255 48 49 50 51 52 53)

set(events)
foreach(event IN LISTS events_in_order)
  set(shutdown 0)
  set(broadcast 3)
  if(event IN_LIST shutting_down)
    set(shutdown 1)
  endif()
  if(event IN_LIST told_to_everybody)
    set(broadcast 0)
  endif()
  string(APPEND events "
[ Event${event} ]
 Record = Yes
 ShutDown = ${shutdown}
 BroadcastType = ${broadcast}
 BroadcastUser = 0
 MailUser = 0
 Command =
")
endforeach()

set(users)
foreach(user RANGE 254)
  string(APPEND users "
[ ${user} ]
 Name =
 Address =
 Email =
")
endforeach()

# A value that is empty still has the blank in front of it, as the daemon writes it.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS config.in)
file(READ config.in settings)
string(REGEX REPLACE "=\n" "= \n" settings "${settings}${events}${users}")
file(CONFIGURE OUTPUT config CONTENT "${settings}" @ONLY)
