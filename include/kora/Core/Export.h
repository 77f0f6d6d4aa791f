#pragma once
// The library is built with hidden visibility; KORA_API marks what it exports.
#define KORA_API __attribute__((visibility("default")))
