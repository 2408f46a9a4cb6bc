set(SUBDIR_SOURCES deletelater.h abstractcanadapter.cpp canopenmasterclass.cpp canopenservice.cpp canscheduler.cpp cansender.cpp timerthread.cpp)
set(SUBDIR_HEADERS abstractcanadapter.h canmutex.h canopenmaster_global.h canopenmasterclass.h canopenservice.h canscheduler.h cansender.h cantypes.h timerthread.h)
