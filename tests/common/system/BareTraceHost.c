/*
 * A C host that has loaded nothing but the C library: loads the trace library
 * (argv[1]), traces one line and prints its /proc/self/maps, so that the test
 * sees what loading the library and tracing mapped into the process.
 */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
  void* library = argc == 2 ? dlopen(argv[1], RTLD_NOW | RTLD_LOCAL) : NULL;
  void* symbol = library == NULL ? NULL : dlsym(library, "TraceString");
  void (*trace)(const char*, ...);
  char line[4096];
  FILE* maps;
  if (symbol == NULL) return fprintf(stderr, "%s\n", argc == 2 ? dlerror() : "no library"), 3;
  memcpy(&trace, &symbol, sizeof trace); /* POSIX: the sizes match */
  trace("%s", "traced");
  if ((maps = fopen("/proc/self/maps", "r")) == NULL) return perror("/proc/self/maps"), 4;
  while (fgets(line, sizeof line, maps) != NULL) fputs(line, stdout);
  return fclose(maps) != 0;
}
