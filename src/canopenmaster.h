#ifndef CANOPENMASTER_H
#define CANOPENMASTER_H

// Umbrella header of the CANopen master library.

#include "canopenmaster_global.h"
#include "cantypes.h"
#include "canopenmasterclass.h"
#include "abstractcanadapter.h"
#include "cansender.h"
#include "canscheduler.h"
#include "canopenservice.h"
#include "timerthread.h"
#include "syncproducer.h"
#include "canmessagetransmitter.h"
#include "cmtworker.h"
#include "pdo.h"
#include "rpdo.h"
#include "sdoexpeditedclient.h"
#include "sdosegmentedclient.h"
#include "sdoblockclient.h"
#include "sdoclient.h"
#include "usdoexpeditedclient.h"
#include "canadapterfactory.h"
#include "democanadapter.h"
#include "gridconnectusbcanadapter.h"
#include "cia309adapter.h"
#include "sdocia309client.h"
#include "nmtnetwork.h"
#include "nmtslave.h"
#include "emcyconsumer.h"
#include "canlisterner.h"
#include "canopenmaster_c.h"

#endif
