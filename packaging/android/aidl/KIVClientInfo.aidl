parcelable KIVClientInfo {
    @utf8InCpp String clientName;
    int clientType;
    byte clientOption;
}
