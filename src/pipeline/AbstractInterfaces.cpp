#include <kvimage/pipeline.h>

namespace kvo {
namespace image {

AbstractRenderer::~AbstractRenderer() {}
AbstractCompositor::~AbstractCompositor() {}

}  // namespace image
}  // namespace kvo
