#ifndef SNBF_PLATFORM_INLINE_H
#define SNBF_PLATFORM_INLINE_H

#ifdef __cplusplus
extern "C"
#endif
void snbf_sim_point(void);

#define SNBF_PLAT_POINT() snbf_sim_point()

#endif
