#include <Qel/RenderPasses/framework/ImageLoader.h>

namespace Morvane::Qel {

ImageLoader::~ImageLoader() = default;

} // namespace Morvane::Qel
