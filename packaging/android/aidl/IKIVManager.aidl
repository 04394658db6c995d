import IKIVCallback;
import KIVClientId;
import KIVClientInfo;

/** The service "vendor_kivsdkservice": knows the clients, starts their campaigns. */
interface IKIVManager {
    void registerKIVClient(in KIVClientInfo info, in IKIVCallback callback, out KIVClientId id);
    oneway void checkForPendingSession(in @utf8InCpp String token);
    void deregisterKIVClient(in @utf8InCpp String token);
    boolean sendData(in byte[] data, in @utf8InCpp String token);
}
