package vendor.nuv.orbsyshal_aidl;

@VintfStability
parcelable SetFdResult {
    /** 0: taken. */
    int result;
    /** Names the region from now on; not 0. */
    int fdToken;
}
