// Everything of kv_core in one include.
#pragma once

#include "kv_core/kv_buffer.h"
#include "kv_core/kv_core_functions.h"
#include "kv_core/kv_exception.h"
#include "kv_core/kv_frame.h"
#include "kv_core/kv_static_vector.h"
#include "kv_core/kv_tensor.h"
#include "kv_core/kv_types.h"
