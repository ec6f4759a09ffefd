voltaria_fuzz_target(fuzz_filehandle SANDBOX SOURCES fuzz_filehandle.cpp LIBS engine)
