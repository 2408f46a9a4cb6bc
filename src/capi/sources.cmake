set(SUBDIR_SOURCES canlisterner.cpp capi.cpp)
set(SUBDIR_HEADERS canlisterner.h canopenmaster_c.h)
