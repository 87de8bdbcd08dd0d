// An executable that carries its information dictionary the way the daemon
// does, for the bundle-information tests to read.

[[gnu::section(".tessary_info"), gnu::used]] static const char kInfo[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<plist version=\"1.0\">\n"
    "<dict>\n"
    "\t<key>CFBundleIdentifier</key>\n"
    "\t<string>com.orvane.tessaryd</string>\n"
    "\t<key>CFBundleVersion</key>\n"
    "\t<string>5.11.1</string>\n"
    "</dict>\n"
    "</plist>\n";

int main() {
    return 0;
}
