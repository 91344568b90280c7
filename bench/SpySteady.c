/*
 * The steady state of a PKCS#11 application, for the cost of a tracer per
 * call: loads the module named by the first argument, logs in to the token
 * labelled "bench" with the PIN of the second argument, and runs the third
 * argument's number of rounds of a fixed mix of eight calls:
 *
 *   C_DigestInit + C_Digest (SHA-256 of 64 bytes)
 *   C_GetAttributeValue of CKA_CLASS, CKA_KEY_TYPE and CKA_LABEL
 *   C_FindObjectsInit + C_FindObjects + C_FindObjectsFinal (data objects)
 *   C_SignInit + C_Sign (RSA-PSS with SHA-256, of a 32-byte hash)
 *
 * Only the rounds are timed, in CPU time of the process (user and system, all
 * threads), which other work on the machine disturbs far less than the wall
 * clock; a tracer's cost is CPU time too, its writes included. Prints one JSON
 * object: the number of calls, the CPU time per call in nanoseconds, and the
 * write() system calls per call (from /proc/self/io, which counts them for the
 * whole process).
 */
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#define CALLS_PER_ROUND 8

static CK_FUNCTION_LIST* f;

static void Fail(const char* what, CK_RV rv) {
  fprintf(stderr, "zelph_spy_steady: %s failed with 0x%lX\n", what, rv);
  exit(1);
}

#define CHECK(call)                      \
  do {                                   \
    const CK_RV rv_ = (call);            \
    if (rv_ != CKR_OK) Fail(#call, rv_); \
  } while (0)

/* The write() calls of this process so far; -1 when /proc cannot tell. */
static long long WriteCalls(void) {
  FILE* io = fopen("/proc/self/io", "r");
  long long count = -1;
  char line[128];
  while (io != NULL && fgets(line, sizeof line, io) != NULL) {
    if (sscanf(line, "syscw: %lld", &count) == 1) break;
  }
  if (io != NULL) fclose(io);
  return count;
}

static double Now(void) {
  struct timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return (double)t.tv_sec * 1e9 + (double)t.tv_nsec;
}

/* The first object of `class` with CKA_ID 01. */
static CK_OBJECT_HANDLE FindKey(CK_SESSION_HANDLE session, CK_OBJECT_CLASS class) {
  CK_BYTE id = 1;
  CK_ATTRIBUTE query[] = {{CKA_CLASS, &class, sizeof class}, {CKA_ID, &id, 1}};
  CK_OBJECT_HANDLE key = CK_INVALID_HANDLE;
  CK_ULONG found = 0;
  CHECK(f->C_FindObjectsInit(session, query, 2));
  CHECK(f->C_FindObjects(session, &key, 1, &found));
  CHECK(f->C_FindObjectsFinal(session));
  if (found != 1) Fail("finding the key with CKA_ID 01", CKR_GENERAL_ERROR);
  return key;
}

int main(int argc, char** argv) {
  if (argc != 4) {
    fprintf(stderr, "usage: zelph_spy_steady MODULE PIN ROUNDS\n");
    return 2;
  }
  const long rounds = atol(argv[3]);
  void* module = dlopen(argv[1], RTLD_NOW);
  void* symbol = module ? dlsym(module, "C_GetFunctionList") : NULL;
  CK_C_GetFunctionList get; /* POSIX allows this; ISO C has no cast for it */
  memcpy(&get, &symbol, sizeof symbol);
  if (get == NULL) {
    fprintf(stderr, "zelph_spy_steady: cannot load %s: %s\n", argv[1], dlerror());
    return 1;
  }
  CHECK(get(&f));
  CK_C_INITIALIZE_ARGS args = {NULL, NULL, NULL, NULL, CKF_OS_LOCKING_OK, NULL};
  CHECK(f->C_Initialize(&args));

  CK_SLOT_ID slots[16];
  CK_ULONG count = 16;
  CHECK(f->C_GetSlotList(CK_TRUE, slots, &count));
  CK_SLOT_ID slot = 0;
  int found = 0;
  for (CK_ULONG i = 0; i < count && !found; ++i) {
    CK_TOKEN_INFO info;
    found = f->C_GetTokenInfo(slots[i], &info) == CKR_OK && memcmp(info.label, "bench ", 6) == 0;
    slot = slots[i];
  }
  if (!found) Fail("finding the token labelled bench", CKR_TOKEN_NOT_PRESENT);
  CK_SESSION_HANDLE session;
  CHECK(f->C_OpenSession(slot, CKF_SERIAL_SESSION, NULL, NULL, &session));
  CHECK(f->C_Login(session, CKU_USER, (CK_UTF8CHAR_PTR)argv[2], strlen(argv[2])));
  const CK_OBJECT_HANDLE privateKey = FindKey(session, CKO_PRIVATE_KEY);

  CK_BYTE data[64];
  memset(data, 0x5A, sizeof data);
  CK_MECHANISM sha256 = {CKM_SHA256, NULL, 0};
  CK_RSA_PKCS_PSS_PARAMS pss = {CKM_SHA256, CKG_MGF1_SHA256, 32};
  CK_MECHANISM rsaPss = {CKM_RSA_PKCS_PSS, &pss, sizeof pss};
  CK_OBJECT_CLASS dataClass = CKO_DATA;
  CK_ATTRIBUTE findData[] = {{CKA_CLASS, &dataClass, sizeof dataClass}};

  const long long writesBefore = WriteCalls();
  const double start = Now();
  for (long round = 0; round < rounds; ++round) {
    CK_BYTE digest[32], signature[512];
    CK_ULONG length = sizeof digest;
    CHECK(f->C_DigestInit(session, &sha256));
    CHECK(f->C_Digest(session, data, sizeof data, digest, &length));

    CK_OBJECT_CLASS class;
    CK_KEY_TYPE keyType;
    char label[64];
    CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &class, sizeof class},
                                 {CKA_KEY_TYPE, &keyType, sizeof keyType},
                                 {CKA_LABEL, label, sizeof label}};
    CHECK(f->C_GetAttributeValue(session, privateKey, attributes, 3));

    CK_OBJECT_HANDLE objects[16];
    CK_ULONG objectCount = 0;
    CHECK(f->C_FindObjectsInit(session, findData, 1));
    CHECK(f->C_FindObjects(session, objects, 16, &objectCount));
    CHECK(f->C_FindObjectsFinal(session));

    CK_ULONG signatureLength = sizeof signature;
    CHECK(f->C_SignInit(session, &rsaPss, privateKey));
    CHECK(f->C_Sign(session, digest, sizeof digest, signature, &signatureLength));
  }
  const double elapsed = Now() - start;
  const long long writes = WriteCalls() - writesBefore;

  f->C_Logout(session);
  f->C_CloseSession(session);
  f->C_Finalize(NULL);
  const double calls = (double)rounds * CALLS_PER_ROUND;
  printf("{\"calls\": %.0f, \"ns_per_call\": %.1f, \"writes_per_call\": %.3f}\n", calls,
         elapsed / calls, writesBefore < 0 ? -1.0 : (double)writes / calls);
  return 0;
}
