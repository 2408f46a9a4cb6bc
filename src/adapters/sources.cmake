set(SUBDIR_SOURCES canadapterfactory.cpp)
set(SUBDIR_HEADERS canadapterfactory.h)
