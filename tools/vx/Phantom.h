#ifndef VXTOOL_PHANTOM_H
#define VXTOOL_PHANTOM_H

#include "Volume.h"

namespace vxtool {

// A CT-like abdomen, 256 x 256 x 192 voxels of 0.8 x 0.8 x 1.0 mm, origin 0.
// Axes as in a patient scan: x toward the patient's left, y posterior, z superior.
// Body of soft tissue (40 HU) in a fat layer (-100 HU), air (-1000 HU) around;
// an aorta that splits into two curved iliac arteries, renal, mesenteric and
// coeliac branches (300 to 400 HU); a spine of vertebral bodies with discs and
// arches, and ribs (bone 650 to 1150 HU); liver, spleen, kidneys and some gas.
// Stored raw = HU + 1024 with rescale slope 1 and intercept -1024; mild noise
// from a fixed seed makes every run identical.
void BuildPhantom(Volume* vol);

// Where the phantom's landmarks lie, mm, for choosing the demo's planes.
constexpr float kPhantomAortaX = 102.0f;
constexpr float kPhantomAortaY = 94.0f;
constexpr float kPhantomBifurcationZ = 92.0f;
constexpr float kPhantomRenalZ = 137.5f;

}  // namespace vxtool

#endif
