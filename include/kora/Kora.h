#pragma once
// libkora: reference tensor kernels for a neural-network accelerator tool
// chain. This umbrella header declares the whole public API.

#include "kora/Core/ArrayRef.h"
#include "kora/Core/Context.h"
#include "kora/Core/ElementType.h"
#include "kora/Core/Export.h"
#include "kora/Core/Storage.h"
#include "kora/Core/Tensor.h"
#include "kora/Core/Trace.h"
#include "kora/Core/Trap.h"
#include "kora/Core/Version.h"

#include "kora/Support/Dispatch.h"
#include "kora/Support/ElementLoop.h"
#include "kora/Support/FixedPoint.h"
#include "kora/Support/FloatFormat.h"
#include "kora/Support/Half.h"
#include "kora/Support/SoftFloat.h"
#include "kora/Support/StridedWalk.h"

#include "kora/Kernel/Argument.h"
#include "kora/Kernel/Dispatcher.h"
#include "kora/Kernel/Invoke.h"
#include "kora/Kernel/KindCode.h"
#include "kora/Kernel/Registration.h"
#include "kora/Kernel/Registry.h"
#include "kora/Kernel/Status.h"

#include "kora/Native/Elementwise.h"
#include "kora/Native/Unary.h"

#include "kora/Mira/RoiAlign.h"
#include "kora/Vela/Conv2d.h"
#include "kora/Vela/Intrinsic.h"
#include "kora/Lyra/Conv2d.h"
#include "kora/Lyra/Intrinsic.h"
