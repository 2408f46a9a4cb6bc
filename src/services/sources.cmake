set(SUBDIR_SOURCES canmessagetransmitter.cpp cmtworker.cpp emcyconsumer.cpp nmtnetwork.cpp nmtslave.cpp pdo.cpp rpdo.cpp syncproducer.cpp)
set(SUBDIR_HEADERS canmessagetransmitter.h cmtworker.h emcyconsumer.h nmtnetwork.h nmtslave.h pdo.h rpdo.h syncproducer.h)
