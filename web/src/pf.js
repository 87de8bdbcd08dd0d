// The PatternFly components the page uses, each from its own module: the
// packages' index modules import the styles of every component, which would
// make the page carry all of them.
export { Alert, AlertActionCloseButton } from "@patternfly/react-core/dist/esm/components/Alert/index.js";
export { Breadcrumb, BreadcrumbItem } from "@patternfly/react-core/dist/esm/components/Breadcrumb/index.js";
export {
    DescriptionList, DescriptionListDescription, DescriptionListGroup, DescriptionListTerm,
} from "@patternfly/react-core/dist/esm/components/DescriptionList/index.js";
export { FormSelect, FormSelectOption } from "@patternfly/react-core/dist/esm/components/FormSelect/index.js";
export { SearchInput } from "@patternfly/react-core/dist/esm/components/SearchInput/index.js";
export { Button } from "@patternfly/react-core/dist/esm/components/Button/index.js";
export { Card, CardBody, CardTitle } from "@patternfly/react-core/dist/esm/components/Card/index.js";
export { EmptyState, EmptyStateBody, EmptyStatePrimary } from "@patternfly/react-core/dist/esm/components/EmptyState/index.js";
export { FileUpload } from "@patternfly/react-core/dist/esm/components/FileUpload/index.js";
export { Form, FormGroup } from "@patternfly/react-core/dist/esm/components/Form/index.js";
export { InputGroup } from "@patternfly/react-core/dist/esm/components/InputGroup/index.js";
export { Label } from "@patternfly/react-core/dist/esm/components/Label/index.js";
export { Modal, ModalVariant } from "@patternfly/react-core/dist/esm/components/Modal/index.js";
export { Page, PageSection } from "@patternfly/react-core/dist/esm/components/Page/index.js";
export { Spinner } from "@patternfly/react-core/dist/esm/components/Spinner/index.js";
export { Switch } from "@patternfly/react-core/dist/esm/components/Switch/index.js";
export { Text, TextContent } from "@patternfly/react-core/dist/esm/components/Text/index.js";
export { TextArea } from "@patternfly/react-core/dist/esm/components/TextArea/index.js";
export { TextInput } from "@patternfly/react-core/dist/esm/components/TextInput/index.js";
export { Title } from "@patternfly/react-core/dist/esm/components/Title/index.js";
export { Toolbar, ToolbarContent, ToolbarGroup, ToolbarItem } from "@patternfly/react-core/dist/esm/components/Toolbar/index.js";
export { Flex, FlexItem } from "@patternfly/react-core/dist/esm/layouts/Flex/index.js";
export { Stack, StackItem } from "@patternfly/react-core/dist/esm/layouts/Stack/index.js";
export {
    TableComposable, Tbody, Td, Th, Thead, Tr,
} from "@patternfly/react-table/dist/esm/components/TableComposable/index.js";
