/* The stand-in host I/O layer: it keeps the callbacks of the last successful registration. */
#include "velIOStub.h"

#include <stddef.h>

static VelCreateStubFn registeredCreate;
static VelDeleteStubFn registeredDelete;
static int32_t registrations;

int32_t velRegisterFS(VelCreateStubFn createStub, VelDeleteStubFn deleteStub) {
  if (createStub == NULL || deleteStub == NULL) return 0;
  registeredCreate = createStub;
  registeredDelete = deleteStub;
  ++registrations;
  return 1;
}

int32_t velIORegistrations(void) { return registrations; }

FileStub* velIOOpen(const char* path, uint32_t mode) {
  return registeredCreate == NULL ? NULL : registeredCreate(path, mode);
}

void velIOClose(FileStub* stub) {
  if (registeredDelete != NULL) registeredDelete(stub);
}
