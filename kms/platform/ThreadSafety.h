// Annotations for clang's thread-safety analysis (-Wthread-safety): which
// lock guards a member, which a function needs or takes. They expand to
// clang attributes under clang and to nothing under other compilers.
#pragma once

#if defined(__clang__)
#define VRKMS_TSA(x) __attribute__((x))
#else
#define VRKMS_TSA(x)
#endif

#define CAPABILITY(name) VRKMS_TSA(capability(name))
#define SCOPED_CAPABILITY VRKMS_TSA(scoped_lockable)
#define GUARDED_BY(lock) VRKMS_TSA(guarded_by(lock))
#define REQUIRES(...) VRKMS_TSA(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) VRKMS_TSA(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) VRKMS_TSA(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) VRKMS_TSA(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) VRKMS_TSA(release_capability(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS VRKMS_TSA(no_thread_safety_analysis)
