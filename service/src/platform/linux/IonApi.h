#pragma once

// The C interface of the ION allocator library as this service uses it; resolved at run time by
// IonLibrary. A negative result is a failure. The last arguments of ion_alloc_only and the places
// `a` and `b` are given 64 zeroed bits each, since their widths are not documented.

extern "C" {

int ion_open(void);
int ion_close(int fd);
int ion_alloc_only(int fd, unsigned long size, unsigned long align, unsigned int heapMask,
                   unsigned int flags, int* handle, ...);
int ion_share(int fd, int handle, int* shareFd);
int ion_import(int fd, int shareFd, int* handle);
int ion_get_info(int fd, int handle, unsigned int* a, unsigned int* b, unsigned long* size);
int ion_free(int fd, int handle);
}
