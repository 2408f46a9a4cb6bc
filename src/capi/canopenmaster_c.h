/* Raw frame access for hosts in any language: adapters named by small integer
 * handles, frames exchanged as 14-byte records. Plain C, no Qt types. */
#ifndef CANOPENMASTER_C_H
#define CANOPENMASTER_C_H

#include <stdint.h>

#if defined(_WIN32)
#  if defined(CANOPENMASTER_LIBRARY)
#    define CA_API __declspec(dllexport)
#  else
#    define CA_API __declspec(dllimport)
#  endif
#else
#  define CA_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

#pragma pack(push, 1)
typedef struct CaFrame {
    uint32_t id;      /* CAN identifier, host byte order */
    uint8_t length;   /* read by ca_send; left untouched by ca_recv */
    uint8_t flags;    /* ignored by ca_send; set to 0 by ca_recv */
    uint8_t data[8];
} CaFrame;
#pragma pack(pop)

#ifdef __cplusplus
static_assert(sizeof(CaFrame) == 14, "CaFrame is 14 bytes");
#else
_Static_assert(sizeof(CaFrame) == 14, "CaFrame is 14 bytes");
#endif

/* Creates the process's Qt core application; call once before ca_create
 * when the host is not itself a Qt application. */
CA_API void qca(void);
/* Returns the new handle (0, 1, 2, ...) or -1 when the type makes no adapter. */
CA_API int32_t ca_create(int32_t type, const char* name, int32_t bitrate);
/* 1 when opened, 100 + error code when open failed, 0 for a bad handle. */
CA_API int32_t ca_connect(int32_t handle);
/* 1 once handed to the adapter, 0 for a bad handle. */
CA_API int32_t ca_send(int32_t handle, const CaFrame* frame);
/* Frames that were waiting (>= 1) when one was taken, -1 when none was
 * waiting or frame is null, 0 for a bad handle. */
CA_API int32_t ca_recv(int32_t handle, CaFrame* frame);
CA_API int32_t ca_disconnnect(int32_t handle);
CA_API int32_t ca_destroy(int32_t handle);

#ifdef __cplusplus
}
#endif

#endif
