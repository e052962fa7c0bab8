// Mozilla User Preferences
user_pref("media.webrtc.camera.allow-pipewire", false);
