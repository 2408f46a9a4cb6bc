set(SUBDIR_SOURCES syncproducer.cpp cmtworker.cpp canmessagetransmitter.cpp pdo.cpp rpdo.cpp)
set(SUBDIR_HEADERS syncproducer.h cmtworker.h canmessagetransmitter.h pdo.h rpdo.h)
