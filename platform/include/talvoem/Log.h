#pragma once

#include <android/log.h>

// Every line goes to the Android log with a null tag; the texts are part of
// the library's interface, so call sites spell them out in full.
#define TALVOEM_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, nullptr, __VA_ARGS__)
#define TALVOEM_LOGI(...) __android_log_print(ANDROID_LOG_INFO, nullptr, __VA_ARGS__)
#define TALVOEM_LOGW(...) __android_log_print(ANDROID_LOG_WARN, nullptr, __VA_ARGS__)
#define TALVOEM_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, nullptr, __VA_ARGS__)
