// The built-in sample: a synthetic green-screen frame and a background scene,
// keyed, composited and run through every effect.
#ifndef KVIMAGE_TOOLS_DEMO_H
#define KVIMAGE_TOOLS_DEMO_H

#include <cstdio>
#include <string>

#include "ImageFiles.h"

namespace kvimage_cli {

// A studio frame: a subject with soft edges and loose hair strands in front of
// an unevenly lit, noisy green backing that throws spill on the subject and
// does not fill the frame (studio wall and a light stand at the sides). Opaque.
Image SynthesiseGreenScreenFrame(unsigned int width, unsigned int height);
// An evening landscape to composite the subject into. Opaque.
Image SynthesiseBackgroundScene(unsigned int width, unsigned int height);

// Keys, composites and writes matte.png, keyed.png, composite.png and
// effects.png into directory (created if missing), printing each step and
// its time to out. Throws FileError or EngineError.
void RunDemo(const std::string& directory, unsigned int width, unsigned int height, std::FILE* out);

}  // namespace kvimage_cli

#endif
