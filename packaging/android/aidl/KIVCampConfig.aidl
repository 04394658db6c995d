import LicInfo;

parcelable KIVCampConfig {
    long campId;
    /** A serialized LTCCampaignDef. */
    byte[] campaignDef;
    LicInfo[] licInfo;
}
