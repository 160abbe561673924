// Test double for the capture device: the image settings backend with its ioctl requests recorded
// and answered here instead of by a V4L2 driver.
#pragma once

#include <linux/videodev2.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "controls/image_capture_settings_v4l2_backend.h"

namespace TestSupport
{

// One control request as the device saw it.
struct ControlRequest {
    unsigned long request; // VIDIOC_G_CTRL or VIDIOC_S_CTRL
    uint32_t id;
    int32_t value; // written by S_CTRL; 0 for G_CTRL
    bool operator==(const ControlRequest& other) const
    {
        return request == other.request && id == other.id && value == other.value;
    }
};

inline std::string RequestName(unsigned long request)
{
    return request == VIDIOC_G_CTRL ? "G_CTRL" : request == VIDIOC_S_CTRL ? "S_CTRL" : "other";
}

// Printed by GoogleTest when a comparison fails.
inline std::ostream& operator<<(std::ostream& out, const ControlRequest& r)
{
    return out << RequestName(r.request) << "(" << r.id << ", " << r.value << ")";
}

// A backend whose device is any file that opens read-write ("/dev/null" by default), with every
// request answered by a table of control values kept here. Requests listed in Refuse fail with EINVAL.
class V4l2ControlDouble : public VideoDaemon::ImageCaptureSettingsV4L2Backend
{
public:
    explicit V4l2ControlDouble(const std::string& devicePath = "/dev/null")
        : ImageCaptureSettingsV4L2Backend(devicePath)
    {
    }

    // Requests seen since construction or the last Clear().
    const std::vector<ControlRequest>& Requests() const { return _Requests; }
    void Clear() { _Requests.clear(); }
    // The value the device holds for a control (what the last accepted S_CTRL wrote).
    int32_t DeviceValue(uint32_t id) const
    {
        auto found = _Values.find(id);
        return found == _Values.end() ? 0 : found->second;
    }
    // The descriptor the requests arrived on (-1 before any).
    int Fd() const { return _Fd; }
    // Makes `request` (VIDIOC_G_CTRL or VIDIOC_S_CTRL) on control `id` fail from now on.
    void Refuse(unsigned long request, uint32_t id) { _Refused.emplace(request, id); }

protected:
    int Ioctl(int fd, unsigned long request, void* arg) override
    {
        _Fd = fd;
        auto* control = static_cast<v4l2_control*>(arg);
        _Requests.push_back({ request, control->id, request == VIDIOC_S_CTRL ? control->value : 0 });
        if (_Refused.count({ request, control->id })) {
            errno = EINVAL;
            return -1;
        }
        if (request == VIDIOC_G_CTRL)
            control->value = DeviceValue(control->id);
        else if (request == VIDIOC_S_CTRL)
            _Values[control->id] = control->value;
        else
            return -1;
        return 0;
    }

private:
    std::vector<ControlRequest> _Requests;
    std::map<uint32_t, int32_t> _Values;
    std::set<std::pair<unsigned long, uint32_t>> _Refused;
    int _Fd = -1;
};

} // namespace TestSupport
