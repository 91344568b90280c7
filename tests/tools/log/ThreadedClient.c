/*
 * A PKCS#11 application with several threads, for a report with one lane per
 * thread: loads the module named by its first argument, and in each of
 * THREADS threads opens a session, logs in with a wrong PIN and then the
 * right one, digests and asks for random bytes a few times.
 */
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#define THREADS 3

static CK_FUNCTION_LIST* f;
static CK_SLOT_ID slot;

static void* Work(void* unused) {
  (void)unused;
  CK_SESSION_HANDLE session;
  if (f->C_OpenSession(slot, CKF_SERIAL_SESSION, NULL, NULL, &session) != CKR_OK) return NULL;
  f->C_Login(session, CKU_USER, (CK_UTF8CHAR_PTR) "0000", 4); /* refused */
  f->C_Login(session, CKU_USER, (CK_UTF8CHAR_PTR) "1234", 4);
  for (int i = 0; i < 5; ++i) {
    CK_MECHANISM sha256 = {CKM_SHA256, NULL, 0};
    CK_BYTE data[] = "zelph", digest[32], random[16];
    CK_ULONG length = sizeof digest;
    f->C_DigestInit(session, &sha256);
    f->C_Digest(session, data, sizeof data - 1, digest, &length);
    f->C_GenerateRandom(session, random, sizeof random);
  }
  f->C_CloseSession(session);
  return NULL;
}

int main(int argc, char** argv) {
  void* module = argc > 1 ? dlopen(argv[1], RTLD_NOW) : NULL;
  void* symbol = module ? dlsym(module, "C_GetFunctionList") : NULL;
  CK_C_GetFunctionList get; /* POSIX allows this; ISO C has no cast for it */
  memcpy(&get, &symbol, sizeof symbol);
  CK_C_INITIALIZE_ARGS args = {NULL, NULL, NULL, NULL, CKF_OS_LOCKING_OK, NULL};
  CK_SLOT_ID slots[8];
  CK_ULONG count = 8;
  if (get == NULL || get(&f) != CKR_OK || f->C_Initialize(&args) != CKR_OK ||
      f->C_GetSlotList(CK_TRUE, slots, &count) != CKR_OK || count == 0) {
    fprintf(stderr, "ThreadedClient: cannot use %s\n", argc > 1 ? argv[1] : "(no module)");
    return 1;
  }
  slot = slots[0]; /* the initialised token comes first */
  pthread_t threads[THREADS];
  for (int i = 0; i < THREADS; ++i) pthread_create(&threads[i], NULL, Work, NULL);
  for (int i = 0; i < THREADS; ++i) pthread_join(threads[i], NULL);
  f->C_Finalize(NULL);
  return 0;
}
