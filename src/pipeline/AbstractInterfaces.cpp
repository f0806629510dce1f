#include <kvimage/pipeline.h>

namespace kvo {
namespace image {

AbstractRenderer::~AbstractRenderer() {}
AbstractCompositor::~AbstractCompositor() {}
KVAbstractImageProcessor::~KVAbstractImageProcessor() {}
KVAbstractImageKeyer::~KVAbstractImageKeyer() {}
KVAbstractImageCompositor::~KVAbstractImageCompositor() {}

}  // namespace image
}  // namespace kvo
