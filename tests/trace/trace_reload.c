/*
 * Loads the trace library (argv[1]) four times in one process, the way a
 * PKCS#11 host loads and unloads a module, and unloads it each time: every
 * load but the third traces a line. After the first unload it waits for a
 * line on stdin, so that the test can look at the log meanwhile.
 */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
  const char* texts[] = {"first", "second", NULL, "third"};
  for (int i = 0; argc == 2 && i < 4; ++i) {
    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    void* symbol = library == NULL ? NULL : dlsym(library, "TraceString");
    void (*trace)(const char*, ...);
    if (symbol == NULL) return fprintf(stderr, "%s\n", dlerror()), 3;
    memcpy(&trace, &symbol, sizeof trace); /* POSIX: the sizes match */
    if (texts[i] != NULL) trace("%s", texts[i]);
    if (dlclose(library) != 0) return 4;
    printf("unloaded %d\n", i);
    fflush(stdout);
    if (i == 0) getchar();
  }
  return argc == 2 ? 0 : 2;
}
