/*
 * A bare C host for the cost of loading a trace library: loads the library
 * named by its first argument, as a PKCS#11 application loads a module that
 * links it, and makes one TraceString call. Exits 1 when either fails.
 */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

int main(int argc, char** argv) {
  void* library = argc == 2 ? dlopen(argv[1], RTLD_NOW) : NULL;
  void* symbol = library ? dlsym(library, "TraceString") : NULL;
  if (symbol == NULL) {
    fprintf(stderr, "zelph_load_host: %s\n", argc == 2 ? dlerror() : "usage: zelph_load_host LIB");
    return 1;
  }
  void (*trace)(const char*, ...); /* POSIX allows this; ISO C has no cast for it */
  memcpy(&trace, &symbol, sizeof symbol);
  trace("loaded");
  return 0;
}
