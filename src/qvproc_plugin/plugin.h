#pragma once
// What a host application of the element library sees of the plugin itself: the buffer meta that
// carries camera settings along with a frame.
#include "common/gstqvMetaInfo.h"
