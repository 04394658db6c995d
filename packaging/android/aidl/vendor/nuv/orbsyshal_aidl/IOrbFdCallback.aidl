package vendor.nuv.orbsyshal_aidl;

/** Told when an announced piece of a region has been consumed. */
@VintfStability
interface IOrbFdCallback {
    void fd_write_done(int fdToken, int a, int b, int c);
}
