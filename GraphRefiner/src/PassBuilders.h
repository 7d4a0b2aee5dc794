#pragma once

#include <memory>
#include "GraphRefiner/src/Pass.h"
#include "GraphRefiner/src/PassManager.h"

namespace netforge::graphrefiner {

// build<PassName>() for every row of the pass table. Each builds a fresh pass object, with pattern instances
// of its own. The source file of a pass defines its builder and registers the pass beside it:
//
//   std::shared_ptr<Pass> buildFoldConcats() { return ...; }
//   static const bool registered = PassManager::registerPass(PassId::FoldConcats);
//
// Builders run during static initialisation: a constructor of a pass or rule may read function-local statics
// and constant expressions, never a std::string, map or vector at file scope.
#define NETFORGE_PASS(name, runMode) std::shared_ptr<Pass> build##name();
#include "GraphRefiner/src/PassTable.def"
#undef NETFORGE_PASS

}  // namespace netforge::graphrefiner
