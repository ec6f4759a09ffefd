voltaria_unit_test(filehandle_test SANDBOX
  SOURCES filehandle_read_test.cpp filehandle_write_test.cpp filehandle_failure_test.cpp
          filehandle_items_test.cpp filehandle_model_test.cpp
  LIBS engine)
