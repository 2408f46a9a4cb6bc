set(SUBDIR_SOURCES cia309adapter.cpp)
set(SUBDIR_HEADERS cia309adapter.h)
