# The real daemon and the simulated unit under the stepped clock.
voltaria_system_test(system_vclock SOURCES vclock_smoke_test.cpp bed.cpp)
