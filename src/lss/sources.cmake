set(SUBDIR_SOURCES lssmaster.cpp lssservice.cpp lsscia305service.cpp lssfastscan.cpp lssclassicalscan.cpp)
set(SUBDIR_HEADERS lssmaster.h lssservice.h lsscia305service.h lssfastscan.h lssclassicalscan.h)
