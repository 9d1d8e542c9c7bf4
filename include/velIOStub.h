/*
 * velIOStub.h — a stand-in for the host's closed I/O layer velIOStub.
 *
 * A file system registers two callbacks with velRegisterFS; the layer then opens files by path
 * through the create callback, works on them through the FileStub record's functions (each
 * called with the record's `file` first) and hands each record back to the delete callback once.
 */
#ifndef VELIOSTUB_H
#define VELIOSTUB_H

#include <stdint.h>

#include "velfs.h"

#if defined(_WIN32)
#define VELIO_API __declspec(dllexport)
#else
#define VELIO_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef FileStub* (*VelCreateStubFn)(const char* path, uint32_t mode);
typedef void (*VelDeleteStubFn)(FileStub* stub);

/* Stores both callbacks: 1, or 0 (and nothing stored) when either is null. */
VELIO_API int32_t velRegisterFS(VelCreateStubFn createStub, VelDeleteStubFn deleteStub);
/* How many calls of velRegisterFS stored callbacks. */
VELIO_API int32_t velIORegistrations(void);
/* The stored create callback's answer; null when none is registered. */
VELIO_API FileStub* velIOOpen(const char* path, uint32_t mode);
/* Hands the record to the stored delete callback; nothing when none is registered. */
VELIO_API void velIOClose(FileStub* stub);

#ifdef __cplusplus
}
#endif

#endif /* VELIOSTUB_H */
