/*
 * The steady state of a PKCS#11 application, for the cost of a tracer per
 * call. Loads the real module (the first argument) and the tracer in front of
 * it (the second; the same path again measures nothing against itself), logs
 * in to the token labelled "bench" with the PIN of the third argument through
 * each, and runs rounds of a fixed mix of eight calls through both, one mix
 * after the other, in alternating order:
 *
 *   C_DigestInit + C_Digest (SHA-256 of 64 bytes)
 *   C_GetAttributeValue of CKA_CLASS, CKA_KEY_TYPE and CKA_LABEL
 *   C_FindObjectsInit + C_FindObjects + C_FindObjectsFinal (data objects)
 *   C_SignInit + C_Sign (RSA-PSS with SHA-256, of a 32-byte hash)
 *
 * Both lists reach the same module in the same process, so the two sides of a
 * round see the same machine; the tracer's cost is the difference. Each mix is
 * timed in CPU time of the process (user and system), which other work on the
 * machine disturbs far less than the wall clock; a tracer's writes are CPU
 * time too.
 *
 * Prints one JSON object: per round the tracer's overhead in nanoseconds per
 * call, over the whole mix and over its six light calls alone (whose module
 * time is small, so that a small overhead stands out of the signature's
 * jitter), the module's own time per call (median), and the write() system
 * calls per call through the tracer (from /proc/self/io, which counts them for
 * the whole process; the direct side writes nothing).
 */
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#define CALLS_PER_MIX 8

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

static double CpuNow(void) {
  struct timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return (double)t.tv_sec * 1e9 + (double)t.tv_nsec;
}

/* One way to the module: its function list, a logged-in session and the
 * signing key, found through that list. */
struct Side {
  CK_FUNCTION_LIST* f;
  CK_SESSION_HANDLE session;
  CK_OBJECT_HANDLE key;
};

static struct Side Open(const char* path, const char* pin) {
  struct Side side;
  void* module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  void* symbol = module ? dlsym(module, "C_GetFunctionList") : NULL;
  CK_C_GetFunctionList get; /* POSIX allows this; ISO C has no cast for it */
  memcpy(&get, &symbol, sizeof symbol);
  if (get == NULL) {
    fprintf(stderr, "zelph_spy_steady: cannot load %s: %s\n", path, dlerror());
    exit(1);
  }
  CHECK(get(&side.f));
  CK_C_INITIALIZE_ARGS args = {NULL, NULL, NULL, NULL, CKF_OS_LOCKING_OK, NULL};
  /* The second side reaches a module the first has initialised. */
  const CK_RV rv = side.f->C_Initialize(&args);
  if (rv != CKR_OK && rv != CKR_CRYPTOKI_ALREADY_INITIALIZED) Fail("C_Initialize", rv);

  CK_SLOT_ID slots[16];
  CK_ULONG count = 16;
  CHECK(side.f->C_GetSlotList(CK_TRUE, slots, &count));
  int found = 0;
  CK_SLOT_ID slot = 0;
  for (CK_ULONG i = 0; i < count && !found; ++i) {
    CK_TOKEN_INFO info;
    slot = slots[i];
    found = side.f->C_GetTokenInfo(slot, &info) == CKR_OK && memcmp(info.label, "bench ", 6) == 0;
  }
  if (!found) Fail("finding the token labelled bench", CKR_TOKEN_NOT_PRESENT);
  CHECK(side.f->C_OpenSession(slot, CKF_SERIAL_SESSION, NULL, NULL, &side.session));
  /* A login holds for every session of the application. */
  const CK_RV login =
      side.f->C_Login(side.session, CKU_USER, (CK_UTF8CHAR_PTR)pin, (CK_ULONG)strlen(pin));
  if (login != CKR_OK && login != CKR_USER_ALREADY_LOGGED_IN) Fail("C_Login", login);

  CK_OBJECT_CLASS class = CKO_PRIVATE_KEY;
  CK_BYTE id = 1;
  CK_ATTRIBUTE query[] = {{CKA_CLASS, &class, sizeof class}, {CKA_ID, &id, 1}};
  CK_ULONG keys = 0;
  CHECK(side.f->C_FindObjectsInit(side.session, query, 2));
  CHECK(side.f->C_FindObjects(side.session, &side.key, 1, &keys));
  CHECK(side.f->C_FindObjectsFinal(side.session));
  if (keys != 1) Fail("finding the key with CKA_ID 01", CKR_GENERAL_ERROR);
  return side;
}

/* The CPU time of a mix: of its six light calls, and of all eight. */
struct Times {
  double light, all;
};

/* The eight calls of the mix. */
static struct Times Mix(const struct Side* side) {
  static CK_BYTE data[64] = {0x5A};
  static CK_MECHANISM sha256 = {CKM_SHA256, NULL, 0};
  static CK_RSA_PKCS_PSS_PARAMS pss = {CKM_SHA256, CKG_MGF1_SHA256, 32};
  static CK_MECHANISM rsaPss = {CKM_RSA_PKCS_PSS, &pss, sizeof pss};
  static CK_OBJECT_CLASS dataClass = CKO_DATA;
  static CK_ATTRIBUTE findData[] = {{CKA_CLASS, &dataClass, sizeof dataClass}};
  CK_FUNCTION_LIST* f = side->f;
  CK_BYTE digest[32], signature[512];
  CK_ULONG length = sizeof digest, signatureLength = sizeof signature, objectCount = 0;
  CK_OBJECT_CLASS class;
  CK_KEY_TYPE keyType;
  char label[64];
  CK_ATTRIBUTE attributes[] = {{CKA_CLASS, &class, sizeof class},
                               {CKA_KEY_TYPE, &keyType, sizeof keyType},
                               {CKA_LABEL, label, sizeof label}};
  CK_OBJECT_HANDLE objects[16];

  const double start = CpuNow();
  CHECK(f->C_DigestInit(side->session, &sha256));
  CHECK(f->C_Digest(side->session, data, sizeof data, digest, &length));
  CHECK(f->C_GetAttributeValue(side->session, side->key, attributes, 3));
  CHECK(f->C_FindObjectsInit(side->session, findData, 1));
  CHECK(f->C_FindObjects(side->session, objects, 16, &objectCount));
  CHECK(f->C_FindObjectsFinal(side->session));
  const double light = CpuNow() - start;
  CHECK(f->C_SignInit(side->session, &rsaPss, side->key));
  CHECK(f->C_Sign(side->session, digest, sizeof digest, signature, &signatureLength));
  const struct Times times = {light, CpuNow() - start};
  return times;
}

static int Compare(const void* a, const void* b) {
  const double x = *(const double*)a, y = *(const double*)b;
  return (x > y) - (x < y);
}

int main(int argc, char** argv) {
  if (argc != 6) {
    fprintf(stderr, "usage: zelph_spy_steady MODULE TRACER PIN ROUNDS ITERATIONS\n");
    return 2;
  }
  const long rounds = atol(argv[4]), iterations = atol(argv[5]);
  if (rounds < 1 || iterations < 1) return 2;
  const struct Side direct = Open(argv[1], argv[3]);
  const struct Side traced = Open(argv[2], argv[3]);
  Mix(&direct); /* warm both ways */
  Mix(&traced);

  double* overhead = calloc((size_t)rounds, sizeof *overhead);
  double* lightOverhead = calloc((size_t)rounds, sizeof *lightOverhead);
  double* module = calloc((size_t)rounds, sizeof *module);
  long long writes = 0;
  for (long round = 0; round < rounds; ++round) {
    struct Times directTime = {0, 0}, tracedTime = {0, 0};
    for (long i = 0; i < iterations; ++i) {
      const int tracedFirst = (round + i) % 2;
      struct Times times;
      if (!tracedFirst) {
        times = Mix(&direct);
        directTime.light += times.light, directTime.all += times.all;
      }
      const long long before = WriteCalls();
      times = Mix(&traced);
      tracedTime.light += times.light, tracedTime.all += times.all;
      writes += WriteCalls() - before;
      if (tracedFirst) {
        times = Mix(&direct);
        directTime.light += times.light, directTime.all += times.all;
      }
    }
    overhead[round] = (tracedTime.all - directTime.all) / ((double)iterations * CALLS_PER_MIX);
    lightOverhead[round] = (tracedTime.light - directTime.light) / ((double)iterations * 6);
    module[round] = directTime.all / ((double)iterations * CALLS_PER_MIX);
  }
  qsort(module, (size_t)rounds, sizeof *module, Compare);
  printf(
      "{\"calls_per_round\": %ld, \"module_ns_per_call\": %.1f, \"writes_per_call\": %.3f, "
      "\"overhead_ns_per_call\": [",
      iterations * CALLS_PER_MIX, module[rounds / 2],
      (double)writes / ((double)rounds * (double)iterations * CALLS_PER_MIX));
  for (long round = 0; round < rounds; ++round) {
    printf("%s%.1f", round ? ", " : "", overhead[round]);
  }
  printf("], \"light_overhead_ns_per_call\": [");
  for (long round = 0; round < rounds; ++round) {
    printf("%s%.1f", round ? ", " : "", lightOverhead[round]);
  }
  printf("]}\n");
  free(overhead);
  free(lightOverhead);
  free(module);
  return 0;
}
