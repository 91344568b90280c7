#include <stdio.h>
#include <zelph/trace.h>
int main(void) { return 0; }
