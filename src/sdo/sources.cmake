set(SUBDIR_SOURCES sdoexpeditedclient.cpp sdosegmentedclient.cpp sdoblockclient.cpp)
set(SUBDIR_HEADERS sdoexpeditedclient.h sdosegmentedclient.h sdoblockclient.h)
