#include <SelvioFacialCapture/SelvioFacialCapture.h>

#include <iostream>

int main() {
    const auto parameters = std::make_shared<SelvioFacialCaptureParameters>();
    parameters->setTimeout(12);
    const auto record = SelvioFacialCaptureObixData::init();
    record->addParameters(parameters->toDictionary());
    std::cout << record->obixDataString().value_or("no record") << '\n';
    return SelvioFacialCapture::version() == "3.2.1" ? 0 : 1;
}
