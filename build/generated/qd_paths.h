/* Fixed host paths, settled when the build is configured. */
#ifndef QD_PATHS_H
#define QD_PATHS_H
#define QD_DEVTAB_PATH "/work/main/build/sandbox/etc/units.tab"
#define QD_RC_PATH "/work/main/build/sandbox/usr/lib/Varnel/.libQDrc"
#define QD_ARCHIVE_DIR "/work/main/build/sandbox/var/units.archive"
#define QD_LIB_DIR "/work/main/build/sandbox/usr/lib/Varnel"
#define QD_RUNLEVEL_CHECKER "/work/main/build/sandbox/usr/kesh/kestrel/bin/CheckRunLevel"
#endif
