// The PC build of the model facts: a VGA display.
#include "riginfo/this_model.h"

namespace RigInfo
{

namespace
{
constexpr Resolution kDisplayResolution { 640, 480 };
} // namespace

Resolution ThisModel::DisplayResolution()
{
    return kDisplayResolution;
}

} // namespace RigInfo
