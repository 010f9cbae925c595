#include "moo/moo_prototypes.hpp"

#include "cstdmf/debug.hpp"
#include "moo/half_float.hpp"

namespace Moo
{

uint16_t packedTexelDensity(float density)
{
  return floatToHalf(density);
}

BinaryPtr packMergedGeometry(const MergedGeometryPrototype& prototype)
{
  char traceback[red::ppa::kTracebackTextCapacity];

  red::ppa::Traceback sizeTraceback;
  const size_t size = red::ppa::computeSize(kMergedGeometryPrototypeType, &prototype, sizeTraceback);
  if (sizeTraceback.failed())
  {
    red::ppa::formatTraceback(sizeTraceback, traceback, sizeof(traceback));
    ZR_MSG(DebugMessagePriority::Error, "Other", "GeometryCompiler::packData red::ppa:size error. traceback: %s \n",
           traceback);
    return nullptr;
  }

  BinaryPtr block(new BinaryBlock(nullptr, size, "Geometry"));
  if (block->len() != size)
    return nullptr; // the block has logged the failed allocation

  if (red::ppa::pack(kMergedGeometryPrototypeType, &prototype, block->cdata(), block->len(), traceback,
                     sizeof(traceback)) == 0)
  {
    ZR_MSG(DebugMessagePriority::Error, "Other", "GeometryCompiler::packData red::ppa:pack error. traceback: %s \n",
           traceback);
    return nullptr;
  }
  return block;
}

} // namespace Moo
