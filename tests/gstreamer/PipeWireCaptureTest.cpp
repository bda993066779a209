int placeholder_for_pipewire_tests = 0;
