set(SUBDIR_SOURCES serialbuscanadapter.cpp socketcaninterfaces.cpp emscpccanadapter.cpp kvasercanadapter.cpp
  jmpcanadapter.cpp pcanadvancedadapter.cpp vcicanadapter.cpp pcanbasiccanadapter.cpp)
set(SUBDIR_HEADERS serialbuscanadapter.h socketcaninterfaces.h emscpccanadapter.h kvasercanadapter.h
  jmpcanadapter.h pcanadvancedadapter.h vcicanadapter.h pcanbasiccanadapter.h)
