set(SUBDIR_SOURCES gridconnectusbcanadapter.cpp)
set(SUBDIR_HEADERS gridconnectusbcanadapter.h)
