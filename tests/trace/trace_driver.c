/*
 * A host process for the trace log tests: it runs a script of trace calls read
 * from stdin, one command a line, so that the tests can look at the log a real
 * process leaves behind.
 *
 * Built twice from this file: linked against libzelphtrace.so, and (with
 * ZELPH_DRIVER_DLOPEN defined) loading the library with dlopen from the path
 * given as the only argument, so that the library can be loaded and unloaded
 * several times in one process.
 *
 * Tokens are separated by single blanks. Inside a token "\s" is a blank, "\n",
 * "\r", "\t" and "\\" are what they are in C, and "\xHH" is any byte.
 *
 *   enter NAME | leave NAME
 *   string FORMAT [d:INT | s:TEXT]...     at most two arguments
 *   template OMIT [TYPE,LEN,VALUE]...     LEN is a number or "*" (the value's
 *                                         size); VALUE is "-" (null pointer),
 *                                         "xHEX" (bytes), "uNUMBER" (one
 *                                         CK_ULONG) or "tTEXT" (the text's bytes)
 *   mechanism TYPE LEN PARAMETER          PARAMETER is "-" or "xHEX"
 *   mechinfo MIN MAX FLAGS
 *   tokeninfo LABEL MANUFACTURER MODEL SERIAL FLAGS MAXPIN MINPIN
 *             TOTALPUBLIC FREEPUBLIC TOTALPRIVATE FREEPRIVATE HWMAJOR.MINOR
 *             FWMAJOR.MINOR                text fields are blank-padded
 *   threads N turns                       N threads, alive together, trace one
 *                                         after another in creation order
 *                                         (enter, string, mechanism, leave)
 *   threads N concurrent ROUNDS           N threads trace at the same time
 *   load | unload                         dlopen build only
 *   sync                                  prints "sync" on stdout
 *
 * On stdout it reports the 32-bit id of every thread that traces ("tid main
 * XXXXXXXX", "tid <index> XXXXXXXX") and "done" at the end. A bad script
 * ends it with status 2.
 */
#define _GNU_SOURCE
#include <p11-kit/pkcs11.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#ifdef ZELPH_DRIVER_DLOPEN
#include <dlfcn.h>
#else
#include "zelph/trace.h"
#endif

/* The trace entry points the script reaches, resolved once per load. */
typedef struct {
  void (*enter)(const char*);
  void (*leave)(const char*);
  void (*string)(const char*, ...);
  void (*traceTemplate)(const CK_ATTRIBUTE*, CK_ULONG, CK_BBOOL);
  void (*mechanism)(const CK_MECHANISM*);
  void (*mechanismInfo)(const CK_MECHANISM_INFO*);
  void (*tokenInfo)(const CK_TOKEN_INFO*);
} TraceApi;

static TraceApi api;
static int apiLoaded;

enum { kMaxTokens = 64 };

static void Fail(const char* what, const char* detail) {
  fprintf(stderr, "trace_driver: %s: %s\n", what, detail);
  exit(2);
}

static unsigned ThreadId(void) {
  return (unsigned)(uintptr_t)pthread_self();
}

/* ---- Loading ----------------------------------------------------------- */

#ifdef ZELPH_DRIVER_DLOPEN
static const char* libraryPath;
static void* library;

static void Resolve(void* target, const char* name) {
  void* symbol = dlsym(library, name);
  if (symbol == NULL) Fail("dlsym", name);
  /* POSIX guarantees that data and function pointers have the same size. */
  memcpy(target, &symbol, sizeof symbol);
}

static void Load(void) {
  if (apiLoaded) Fail("load", "already loaded");
  library = dlopen(libraryPath, RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) Fail("dlopen", dlerror());
  Resolve(&api.enter, "TraceEnter");
  Resolve(&api.leave, "TraceLeave");
  Resolve(&api.string, "TraceString");
  Resolve(&api.traceTemplate, "TraceTemplate");
  Resolve(&api.mechanism, "TraceMechanism");
  Resolve(&api.mechanismInfo, "TraceMechanismInfo");
  Resolve(&api.tokenInfo, "TraceTokenInfo");
  apiLoaded = 1;
}

static void Unload(void) {
  if (!apiLoaded) Fail("unload", "not loaded");
  memset(&api, 0, sizeof api);
  apiLoaded = 0;
  if (dlclose(library) != 0) Fail("dlclose", dlerror());
  library = NULL;
}
#else
static void Load(void) {
  api.enter = TraceEnter;
  api.leave = TraceLeave;
  api.string = TraceString;
  api.traceTemplate = TraceTemplate;
  api.mechanism = TraceMechanism;
  api.mechanismInfo = TraceMechanismInfo;
  api.tokenInfo = TraceTokenInfo;
  apiLoaded = 1;
}
#endif

static const TraceApi* Api(void) {
  if (!apiLoaded) Fail("trace call", "library not loaded");
  return &api;
}

/* ---- Tokens ------------------------------------------------------------ */

static int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

/* Resolves the escapes of one token in place. */
static void Unescape(char* token) {
  char* out = token;
  for (const char* in = token; *in != '\0'; ++in) {
    if (*in != '\\') {
      *out++ = *in;
      continue;
    }
    switch (*++in) {
      case 's':
        *out++ = ' ';
        break;
      case 'n':
        *out++ = '\n';
        break;
      case 'r':
        *out++ = '\r';
        break;
      case 't':
        *out++ = '\t';
        break;
      case '\\':
        *out++ = '\\';
        break;
      case 'x': {
        const int high = HexDigit(in[1]);
        const int low = high < 0 ? -1 : HexDigit(in[2]);
        if (low < 0) Fail("bad escape", token);
        *out++ = (char)(high * 16 + low);
        in += 2;
        break;
      }
      default:
        Fail("bad escape", token);
    }
  }
  *out = '\0';
}

/* Splits a line at single blanks; returns the number of tokens. */
static int Split(char* line, char** tokens) {
  int count = 0;
  char* save = NULL;
  for (char* token = strtok_r(line, " ", &save); token != NULL;
       token = strtok_r(NULL, " ", &save)) {
    if (count == kMaxTokens) Fail("too many tokens", token);
    Unescape(token);
    tokens[count++] = token;
  }
  return count;
}

static unsigned long long Number(const char* text) {
  char* end = NULL;
  const unsigned long long value = strtoull(text, &end, 0);
  if (*text == '\0' || *end != '\0') Fail("not a number", text);
  return value;
}

/* Decodes hexadecimal digits into a fresh buffer of at least one byte. */
static unsigned char* HexBytes(const char* hex, size_t* size) {
  const size_t length = strlen(hex);
  if (length % 2 != 0) Fail("odd hex length", hex);
  unsigned char* bytes = malloc(length / 2 + 1);
  if (bytes == NULL) Fail("malloc", hex);
  for (size_t i = 0; i < length / 2; ++i) {
    const int high = HexDigit(hex[2 * i]);
    const int low = HexDigit(hex[2 * i + 1]);
    if (high < 0 || low < 0) Fail("bad hex", hex);
    bytes[i] = (unsigned char)(high * 16 + low);
  }
  *size = length / 2;
  return bytes;
}

/* ---- Commands ---------------------------------------------------------- */

static void RunString(char** tokens, int count) {
  if (count < 2 || count > 4) Fail("string", "needs a format and at most two arguments");
  void (*trace)(const char*, ...) = Api()->string;
  const char* format = tokens[1];
  char shape[3] = "";
  const char* text[2] = {NULL, NULL};
  int number[2] = {0, 0};
  for (int i = 2; i < count; ++i) {
    const char* arg = tokens[i];
    if (strncmp(arg, "d:", 2) == 0) {
      number[i - 2] = (int)strtol(arg + 2, NULL, 0);
    } else if (strncmp(arg, "s:", 2) == 0) {
      text[i - 2] = arg + 2;
    } else {
      Fail("string argument", arg);
    }
    shape[i - 2] = arg[0];
  }
  if (strcmp(shape, "") == 0) {
    trace(format);
  } else if (strcmp(shape, "d") == 0) {
    trace(format, number[0]);
  } else if (strcmp(shape, "s") == 0) {
    trace(format, text[0]);
  } else if (strcmp(shape, "dd") == 0) {
    trace(format, number[0], number[1]);
  } else if (strcmp(shape, "ds") == 0) {
    trace(format, number[0], text[1]);
  } else if (strcmp(shape, "sd") == 0) {
    trace(format, text[0], number[1]);
  } else {
    trace(format, text[0], text[1]);
  }
}

/* Parses "TYPE,LEN,VALUE" into an attribute whose value buffer it allocates. */
static void ParseAttribute(char* token, CK_ATTRIBUTE* attribute) {
  char* firstComma = strchr(token, ',');
  char* secondComma = firstComma == NULL ? NULL : strchr(firstComma + 1, ',');
  if (secondComma == NULL) Fail("attribute", token);
  *firstComma = '\0';
  *secondComma = '\0';
  const char* length = firstComma + 1;
  const char* value = secondComma + 1;

  attribute->type = Number(token);
  size_t size = 0;
  if (strcmp(value, "-") == 0) {
    attribute->pValue = NULL;
  } else if (value[0] == 'x') {
    attribute->pValue = HexBytes(value + 1, &size);
  } else if (value[0] == 'u') {
    CK_ULONG* number = malloc(sizeof *number);
    if (number == NULL) Fail("malloc", value);
    *number = Number(value + 1);
    attribute->pValue = number;
    size = sizeof *number;
  } else if (value[0] == 't') {
    attribute->pValue = strdup(value + 1);
    if (attribute->pValue == NULL) Fail("strdup", value);
    size = strlen(value + 1);
  } else {
    Fail("attribute value", value);
  }
  attribute->ulValueLen = strcmp(length, "*") == 0 ? size : Number(length);
}

static void RunTemplate(char** tokens, int count) {
  if (count < 2) Fail("template", "needs the omit flag");
  const CK_ULONG attributeCount = (CK_ULONG)(count - 2);
  CK_ATTRIBUTE attributes[kMaxTokens];
  for (CK_ULONG i = 0; i < attributeCount; ++i) ParseAttribute(tokens[i + 2], &attributes[i]);
  Api()->traceTemplate(attributes, attributeCount, (CK_BBOOL)Number(tokens[1]));
  for (CK_ULONG i = 0; i < attributeCount; ++i) free(attributes[i].pValue);
}

static void RunMechanism(char** tokens, int count) {
  if (count != 4) Fail("mechanism", "needs TYPE LEN PARAMETER");
  CK_MECHANISM mechanism;
  size_t size = 0;
  mechanism.mechanism = Number(tokens[1]);
  mechanism.ulParameterLen = Number(tokens[2]);
  if (strcmp(tokens[3], "-") == 0) {
    mechanism.pParameter = NULL;
  } else if (tokens[3][0] == 'x') {
    mechanism.pParameter = HexBytes(tokens[3] + 1, &size);
  } else {
    Fail("mechanism parameter", tokens[3]);
  }
  Api()->mechanism(&mechanism);
  free(mechanism.pParameter);
}

static void RunMechanismInfo(char** tokens, int count) {
  if (count != 4) Fail("mechinfo", "needs MIN MAX FLAGS");
  CK_MECHANISM_INFO info;
  info.ulMinKeySize = Number(tokens[1]);
  info.ulMaxKeySize = Number(tokens[2]);
  info.flags = Number(tokens[3]);
  Api()->mechanismInfo(&info);
}

/* Copies text into a fixed field and pads it with blanks, as tokens do. */
static void Field(unsigned char* field, size_t size, const char* text) {
  const size_t length = strlen(text);
  if (length > size) Fail("field too long", text);
  memset(field, ' ', size);
  memcpy(field, text, length);
}

static CK_VERSION Version(const char* text) {
  unsigned major = 0;
  unsigned minor = 0;
  if (sscanf(text, "%u.%u", &major, &minor) != 2) Fail("version", text);
  CK_VERSION version = {(CK_BYTE)major, (CK_BYTE)minor};
  return version;
}

static void RunTokenInfo(char** tokens, int count) {
  if (count != 14) Fail("tokeninfo", "needs 13 fields");
  CK_TOKEN_INFO info;
  /* The fields the dump leaves out hold values that would stand out. */
  memset(&info, 0x5A, sizeof info);
  Field(info.label, sizeof info.label, tokens[1]);
  Field(info.manufacturerID, sizeof info.manufacturerID, tokens[2]);
  Field(info.model, sizeof info.model, tokens[3]);
  Field(info.serialNumber, sizeof info.serialNumber, tokens[4]);
  info.flags = Number(tokens[5]);
  info.ulMaxSessionCount = 4711;
  info.ulSessionCount = 4712;
  info.ulMaxRwSessionCount = 4713;
  info.ulRwSessionCount = 4714;
  info.ulMaxPinLen = Number(tokens[6]);
  info.ulMinPinLen = Number(tokens[7]);
  info.ulTotalPublicMemory = Number(tokens[8]);
  info.ulFreePublicMemory = Number(tokens[9]);
  info.ulTotalPrivateMemory = Number(tokens[10]);
  info.ulFreePrivateMemory = Number(tokens[11]);
  info.hardwareVersion = Version(tokens[12]);
  info.firmwareVersion = Version(tokens[13]);
  memcpy(info.utcTime, "2099123123595900", sizeof info.utcTime);
  Api()->tokenInfo(&info);
}

/* ---- Threads ----------------------------------------------------------- */

typedef struct {
  pthread_mutex_t mutex;
  pthread_cond_t changed;
  int turn;  /* turns mode: index of the thread whose turn it is */
  int ready; /* concurrent mode: threads waiting at the start line */
  int count;
  int rounds;
  int concurrent;
} ThreadGroup;

typedef struct {
  ThreadGroup* group;
  int index;
} Worker;

static void Report(int index) {
  /* stdout is shared; one printf call per line keeps lines whole. */
  printf("tid %d %08X\n", index, ThreadId());
}

/* Writes its part when its turn comes, then stays alive until every thread has
 * had its turn, so that no two threads share an id. */
static void RunTurn(Worker* worker) {
  ThreadGroup* group = worker->group;
  pthread_mutex_lock(&group->mutex);
  while (group->turn != worker->index) pthread_cond_wait(&group->changed, &group->mutex);
  pthread_mutex_unlock(&group->mutex);

  Report(worker->index);
  const TraceApi* trace = Api();
  CK_MECHANISM mechanism = {CKM_RSA_PKCS, NULL, 0};
  trace->enter("turn");
  trace->string("thread %d", worker->index);
  trace->mechanism(&mechanism);
  trace->leave("turn");

  pthread_mutex_lock(&group->mutex);
  ++group->turn;
  pthread_cond_broadcast(&group->changed);
  while (group->turn != group->count) pthread_cond_wait(&group->changed, &group->mutex);
  pthread_mutex_unlock(&group->mutex);
}

/* Starts together with the others and traces nested calls as fast as it can. */
static void RunConcurrent(Worker* worker) {
  ThreadGroup* group = worker->group;
  pthread_mutex_lock(&group->mutex);
  ++group->ready;
  pthread_cond_broadcast(&group->changed);
  while (group->ready != group->count) pthread_cond_wait(&group->changed, &group->mutex);
  pthread_mutex_unlock(&group->mutex);

  Report(worker->index);
  const TraceApi* trace = Api();
  for (int round = 0; round < group->rounds; ++round) {
    trace->enter("outer");
    trace->string("t%d r%d", worker->index, round);
    trace->enter("inner");
    trace->string("t%d r%d deep", worker->index, round);
    trace->leave("inner");
    trace->leave("outer");
  }
}

static void* WorkerMain(void* argument) {
  Worker* worker = argument;
  if (worker->group->concurrent) {
    RunConcurrent(worker);
  } else {
    RunTurn(worker);
  }
  return NULL;
}

static void RunThreads(char** tokens, int count) {
  if (count < 3) Fail("threads", "needs N and a mode");
  ThreadGroup group;
  memset(&group, 0, sizeof group);
  pthread_mutex_init(&group.mutex, NULL);
  pthread_cond_init(&group.changed, NULL);
  group.count = (int)Number(tokens[1]);
  if (strcmp(tokens[2], "turns") == 0 && count == 3) {
    group.concurrent = 0;
  } else if (strcmp(tokens[2], "concurrent") == 0 && count == 4) {
    group.concurrent = 1;
    group.rounds = (int)Number(tokens[3]);
  } else {
    Fail("threads mode", tokens[2]);
  }

  pthread_t* threads = calloc((size_t)group.count, sizeof *threads);
  Worker* workers = calloc((size_t)group.count, sizeof *workers);
  if (threads == NULL || workers == NULL) Fail("calloc", "threads");
  for (int i = 0; i < group.count; ++i) {
    workers[i].group = &group;
    workers[i].index = i;
    if (pthread_create(&threads[i], NULL, WorkerMain, &workers[i]) != 0) Fail("pthread_create", "");
  }
  for (int i = 0; i < group.count; ++i) pthread_join(threads[i], NULL);
  free(workers);
  free(threads);
  pthread_cond_destroy(&group.changed);
  pthread_mutex_destroy(&group.mutex);
  fflush(stdout);
}

/* ---- Script ------------------------------------------------------------ */

static void Run(char** tokens, int count) {
  const char* command = tokens[0];
  if (strcmp(command, "enter") == 0 && count == 2) {
    Api()->enter(tokens[1]);
  } else if (strcmp(command, "leave") == 0 && count == 2) {
    Api()->leave(tokens[1]);
  } else if (strcmp(command, "string") == 0) {
    RunString(tokens, count);
  } else if (strcmp(command, "template") == 0) {
    RunTemplate(tokens, count);
  } else if (strcmp(command, "mechanism") == 0) {
    RunMechanism(tokens, count);
  } else if (strcmp(command, "mechinfo") == 0) {
    RunMechanismInfo(tokens, count);
  } else if (strcmp(command, "tokeninfo") == 0) {
    RunTokenInfo(tokens, count);
  } else if (strcmp(command, "threads") == 0) {
    RunThreads(tokens, count);
#ifdef ZELPH_DRIVER_DLOPEN
  } else if (strcmp(command, "load") == 0 && count == 1) {
    Load();
  } else if (strcmp(command, "unload") == 0 && count == 1) {
    Unload();
#endif
  } else if (strcmp(command, "sync") == 0 && count == 1) {
    printf("sync\n");
    fflush(stdout);
  } else {
    Fail("unknown command", command);
  }
}

int main(int argc, char** argv) {
#ifdef ZELPH_DRIVER_DLOPEN
  if (argc != 2) Fail("usage", "trace_driver_dl LIBRARY < script");
  libraryPath = argv[1];
#else
  (void)argv;
  if (argc != 1) Fail("usage", "trace_driver < script");
  Load();
#endif
  printf("tid main %08X\n", ThreadId());
  fflush(stdout);

  char* line = NULL;
  size_t capacity = 0;
  ssize_t length;
  while ((length = getline(&line, &capacity, stdin)) >= 0) {
    if (length > 0 && line[length - 1] == '\n') line[--length] = '\0';
    char* tokens[kMaxTokens];
    const int count = Split(line, tokens);
    if (count > 0 && tokens[0][0] != '#') Run(tokens, count);
  }
  free(line);

#ifdef ZELPH_DRIVER_DLOPEN
  if (apiLoaded) Unload();
#endif
  printf("done\n");
  return 0;
}
