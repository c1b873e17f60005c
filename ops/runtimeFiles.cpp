#include "runtimeFiles.h"

#include "files.h"

namespace ops {

bool makeRuntimeDirectory() {
  return TARNFSMkdirP(kRuntimeDirectory, 0, /*createParents=*/1, 0, 0, 0755) >= 0;
}

}  // namespace ops
