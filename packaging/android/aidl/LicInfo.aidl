parcelable LicInfo {
    long licSN;
    int sKeyEncAlgo;
    int pKeyEncAlgo;
    /** PEM text of the owner's public key; empty: not sealed. */
    byte[] encryptionPKey;
}
