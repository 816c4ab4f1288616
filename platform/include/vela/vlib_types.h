// Basic types shared by every platform call.
#ifndef VELA_VLIB_TYPES_H_
#define VELA_VLIB_TYPES_H_

// The platform libraries export their calls explicitly; everything else in
// them stays hidden.
#define VELA_PLATFORM_API __attribute__((visibility("default")))

typedef int BOOL;
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

#endif  // VELA_VLIB_TYPES_H_
