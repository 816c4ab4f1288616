// Visibility of the calculation library's interface: everything else in the
// library is hidden.
#ifndef VELABTRFSSNAPUSAGE_EXPORT_H_
#define VELABTRFSSNAPUSAGE_EXPORT_H_

#define VELA_EXPORT __attribute__((visibility("default")))

#endif  // VELABTRFSSNAPUSAGE_EXPORT_H_
