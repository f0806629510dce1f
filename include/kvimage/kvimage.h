#ifndef KVIMAGE_KVIMAGE_H
#define KVIMAGE_KVIMAGE_H

// The whole public API of kvimage: images, enumerations, support services, the
// three front ends and every stage.
#include <kvimage/export.h>
#include <kvimage/types.h>
#include <kvimage/support.h>
#include <kvimage/image.h>
#include <kvimage/pipeline.h>
#include <kvimage/colour.h>
#include <kvimage/compositing.h>
#include <kvimage/keying.h>
#include <kvimage/blur.h>
#include <kvimage/catalogue.h>

#endif
