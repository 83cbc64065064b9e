// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The generic BLAS by its own header; cblas.h alone may be that of any other installed beside it.
#if __has_include(<cblas-netlib.h>)
#include <cblas-netlib.h>
#else
#include <cblas.h>
#endif
