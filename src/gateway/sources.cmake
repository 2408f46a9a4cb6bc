set(SUBDIR_SOURCES cia309adapter.cpp sdocia309client.cpp lsscia309service.cpp)
set(SUBDIR_HEADERS cia309adapter.h sdocia309client.h lsscia309service.h)
