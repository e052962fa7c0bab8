// Mozilla User Preferences
user_pref("media.webrtc.camera.allow-pipewire", true
user_pref("browser.startup.page", 3);
