#include "Vantel/Orbel/SslEngine.h"

namespace Vantel::Orbel {

SslEngine::~SslEngine() = default;

}  // namespace Vantel::Orbel
