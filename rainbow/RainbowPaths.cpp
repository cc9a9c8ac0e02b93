// The fixed texts of the rainbow service: the one place that spells out its paths and names.
#include "rainbow/RainbowPaths.h"

const std::string kDumplogRoot = "/data/vendor/log/reliability/dumplog";
const std::string kFulldumplogRoot = "/data/vendor/log/reliability/fulldumplog";
const std::string kDataMount = "/data";

const std::string kHistoryName = "history.log";
const std::string kTmpDumpName = "tmp.bin";
const std::string kRawdumpName = "rawdump.bin";
const std::string kFulldumpName = "fulldump.bin";
const std::string kDoneName = "DONE";
const std::string kXblAblName = "xbl_abl";
const std::string kLastXblAblName = "last_xbl_abl";
const std::string kLastKmsgName = "last_kmsg";
const std::string kTzLogName = "tz_log";
const std::string kTmpSuffix = "_tmp";

const std::string kPmicPonLogPath = "/proc/pmic_pon_log";
const std::string kShipmodePath = "/data/vendor/log/reliability/shipmode_shutdown";
const std::string kBoardIdPath = "/proc/device-tree/rootparam/qcom,boardid";
const std::string kOcpKey = "zenta_pmic_ocp_debug.OCP";
const std::string kSreasonKey = "sreason";
const std::string kRebootReasonKey = "reboot_reason";
const std::string kVendorDeviceProperty = "ro.product.vendor.device";

const std::string kUnknownSreason = "unknown_sreason";
const std::string kFactoryLibrary = "lib_factory_interface.so";
