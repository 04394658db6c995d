parcelable KIVClientId {
    @utf8InCpp String token;
    int clientId;
}
