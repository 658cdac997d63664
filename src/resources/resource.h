#pragma once

#define IDD_VERIFY_USER_PIN 101
#define IDC_USER_PIN 1001
