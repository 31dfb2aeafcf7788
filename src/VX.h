#ifndef VX_H
#define VX_H

// Every public header of the library.

#include "VX_Types/VX_Export.h"
#include "VX_Types/VX_CPU.h"
#include "VX_Types/VX_Vec.h"
#include "VX_Types/VX_Mat.h"
#include "VX_Types/VX_Rect.h"
#include "VX_Types/VX_Transformable.h"
#include "VX_Types/VX_ID.h"
#include "VX_Types/VX_Raster.h"
#include "VX_Types/VX_Box.h"
#include "VX_Types/VX_VolData.h"
#include "VX_Types/VX_BitVol.h"
#include "VX_Types/VX_RealBitVol.h"

#include "VX_Apps/VX_Multithread.h"
#include "VX_Apps/VX_ClipBounds.h"
#include "VX_Apps/VX_MPR.h"
#include "VX_Apps/VX_ClippingObject.h"
#include "VX_Apps/VX_ClippingObjectManager.h"
#include "VX_Apps/VX_ClippingBoundsManager.h"

#include "VX_Zoom/VX_ShearZoom.h"

#endif
