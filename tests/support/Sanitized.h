// Whether a sanitizer watches the tests. What they say of memory and threads they say of a part of
// all cases as well, and everything takes them ten times as long; so tests of very many like cases
// try a part of them there, spread over all, and all of them in the other builds.
#pragma once

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define RL_TESTS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define RL_TESTS_SANITIZED 1
#endif
#endif

#ifdef RL_TESTS_SANITIZED
constexpr bool IS_WATCHED = true;
#else
constexpr bool IS_WATCHED = false;
#endif
