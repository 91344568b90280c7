// The leaf of the configuration store: a key and its value as the file
// holds them. Sections (CConfigSection.h) own their entries in file order;
// lookups, typed reads and writes go through the section.
#pragma once

#include "common/base/CTString.h"

namespace zelph {

// One key/value pair of a configuration section. Both are plain text: the
// store keeps no types, integers are decimal text.
struct CConfigEntry {
  CUTF8String key;
  CUTF8String value;
};

}  // namespace zelph
