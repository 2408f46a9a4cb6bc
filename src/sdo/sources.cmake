set(SUBDIR_SOURCES sdoexpeditedclient.cpp sdosegmentedclient.cpp sdoblockclient.cpp sdoclient.cpp usdoexpeditedclient.cpp)
set(SUBDIR_HEADERS sdoexpeditedclient.h sdosegmentedclient.h sdoblockclient.h sdoclient.h usdoexpeditedclient.h)
