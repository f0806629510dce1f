#ifndef KVIMAGE_SRC_PIPELINE_CATALOGUE_H
#define KVIMAGE_SRC_PIPELINE_CATALOGUE_H

#include <initializer_list>

#include <kvimage/catalogue.h>

namespace kvo {
namespace image {

// The setter's row; the name must be in the catalogue.
const KVSetterInfo& CatalogueRow(KVFrontEnd frontEnd, const char* name);

// The code a setter returns for these arguments by its row's checks, in
// parameter order, or 0. arguments holds one number per parameter (a
// compound or layer parameter, which no check reads by value, any number);
// layer and background serve a kCheckLayerMatches parameter.
int RefusedArguments(const KVSetterInfo& row, std::initializer_list<double> arguments,
                     const KVAbstractImage* layer = nullptr, const KVAbstractImage* background = nullptr);

}  // namespace image
}  // namespace kvo

#endif
