import KIVCampConfig;

/** What the manager calls in a client. */
interface IKIVCallback {
    /** 0, or why the client refused. */
    int StartSession(in @utf8InCpp String token, in KIVCampConfig config);
    void StopSession(in @utf8InCpp String token, long campId);
    void StartSessionforLicSN(in @utf8InCpp String token, long campId, long licSN);
    void StopSessionforLicSN(in @utf8InCpp String token, long campId, long licSN);
}
