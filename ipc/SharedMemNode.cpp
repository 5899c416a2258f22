#include "Vantel/Orbel/SharedMemNode.h"

namespace Vantel::Orbel {

SharedMemNode::~SharedMemNode() = default;

}  // namespace Vantel::Orbel
