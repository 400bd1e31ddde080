#pragma once

/// Marks what the register library exports; everything else stays hidden.
#define TARN_API __attribute__((visibility("default")))
