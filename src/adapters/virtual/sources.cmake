set(SUBDIR_SOURCES democanadapter.cpp)
set(SUBDIR_HEADERS democanadapter.h)
