// What the test service answers to 'i'.
#pragma once

#include <sys/types.h>

namespace zelph {

struct CServiceStatus {
  pid_t pid;
  pid_t sessionId;
  bool inRoot;  // working directory is "/"
};

}  // namespace zelph
