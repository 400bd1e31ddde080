#pragma once

/// Marks what the platform library exports; everything else stays hidden.
#define TARN_PLATFORM_API __attribute__((visibility("default")))
