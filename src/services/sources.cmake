set(SUBDIR_SOURCES emcyconsumer.cpp nmtnetwork.cpp nmtslave.cpp)
set(SUBDIR_HEADERS emcyconsumer.h nmtnetwork.h nmtslave.h)
